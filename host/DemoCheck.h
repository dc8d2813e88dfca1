// `tavik demo`: the junk-mail check shown end to end with nothing to set up. A POP3 server and an SMTP
// server of the demo's own on loopback, a demo user in a private store (host/DemoUser.h), one check
// that deletes junk, keeps a friend's mail and answers an order enquiry, what that left on the servers,
// and a second check that finds nothing new to judge.
#pragma once

#include <cstdio>

namespace tavik::host {

// Returns 0 when the demo showed what it means to show, 1 when a step failed or a fact did not hold
// (the output says which).
int RunDemo(FILE* out, FILE* err);

}  // namespace tavik::host
