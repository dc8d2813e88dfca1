// tavik demo: a whole mail check against a sample mailbox, with nothing to set up.
#include <cstdio>

#include "host/Commands.h"
#include "host/DemoCheck.h"

int tavik::host::RunDemo(const Args& args) {
    if (!args.empty()) {
        std::fprintf(stderr, "usage: tavik demo\n");
        return 2;
    }
    return RunPop3Demo();
}
