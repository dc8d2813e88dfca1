#include "host/DemoCheck.h"

#include <cstdio>

#include "host/DemoPop3Server.h"
#include "host/MailCheck.h"
#include "host/SampleMailbox.h"

int tavik::host::RunPop3Demo() {
    std::vector<std::string> texts;
    size_t junk = 0;
    for (const SampleMessage& m : MakeSampleMailbox()) {
        texts.push_back(m.text);
        junk += m.junk ? 1 : 0;
    }
    DemoPop3Server server(texts, "demo", "demo-password");
    if (!server.Start()) {
        std::fprintf(stderr, "tavik: cannot start the demo POP3 server on 127.0.0.1\n");
        return 1;
    }
    std::printf("tavik demo: a sample mailbox of %zu messages (%zu of them junk) served on 127.0.0.1:%u\n",
                texts.size(), junk, server.Port());
    std::fflush(stdout);
    CheckOptions o;
    o.server = "127.0.0.1";
    o.port = server.Port();
    o.user = "demo";
    o.password = "demo-password";
    o.timeLimit = 10;
    int rc = RunMailCheck(o, stdout);
    server.Stop();
    return rc;
}
