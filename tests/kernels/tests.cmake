# Exact rational arithmetic (GMP) is the reference of the generated hard cases.
find_package(PkgConfig REQUIRED)
pkg_check_modules(QG_KERNELS_GMP REQUIRED IMPORTED_TARGET gmpxx gmp)
target_link_libraries(qg_tests_kernels PRIVATE PkgConfig::QG_KERNELS_GMP)
