// Usage: load_library <path of a shared library>. Exit code 0 when dlopen succeeds.
#include <dlfcn.h>
#include <cstdio>

int main(int argc, char** argv) {
    void* handle = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (handle == nullptr) return std::fprintf(stderr, "%s\n", argc == 2 ? dlerror() : "usage: load_library <library>"), 1;
    dlclose(handle);
    return 0;
}
