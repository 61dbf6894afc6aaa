// Usage: load_library <path of a shared library>. Exit code 0 when dlopen succeeds.
#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    void* handle = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    dlclose(handle);
    return 0;
}
