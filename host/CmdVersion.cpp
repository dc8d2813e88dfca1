#include <cstdio>

#include "host/Commands.h"

int tavik::host::RunVersion(const Args&) {
    std::printf("tavik 0.1.0\n");
    return 0;
}
