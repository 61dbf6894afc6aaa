# Exact rational arithmetic (GMP) is the reference of the predicate, ray-box and closest-point tests.
find_package(PkgConfig REQUIRED)
pkg_check_modules(QG_PRIMITIVES_GMP REQUIRED IMPORTED_TARGET gmpxx gmp)
target_link_libraries(qg_tests_primitives PRIVATE PkgConfig::QG_PRIMITIVES_GMP)
