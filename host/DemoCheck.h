// The mail check of `tavik demo`: a POP3 server of our own on loopback, serving the sample mailbox,
// checked exactly as `tavik check` checks a real one.
#pragma once

namespace tavik::host {

int RunPop3Demo();

}  // namespace tavik::host
