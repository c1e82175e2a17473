// lorvex-play: plays clips the way a 3D-scene browser would, through the Lorvex library.
#include "Lorvex.h"

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--version") == 0) {
            long major = 0;
            long minor = 0;
            LxGetVersion(&major, &minor);
            std::printf("lorvex-play: Lorvex interface %ld.%ld\n", major, minor);
            std::printf("thread services: version 1.16 %s\n",
                        KtCheckVersion(1, 16) ? "supported" : "not supported");
            return 0;
        }
    }
    std::fprintf(stderr, "usage: lorvex-play --version\n");
    return 2;
}
