# Python's email package on the decoder benchmark's corpus: every message parsed, walked, and every
# leaf part's payload decoded, three times. Prints the least process CPU time a round took (seconds), the
# message count and the decoded byte count.
import email
import sys
import time

data = open(sys.argv[1], "rb").read()
messages = []
pos = 0
while pos < len(data):
    length = int(data[pos:pos + 10])
    messages.append(data[pos + 11:pos + 11 + length])
    pos += 11 + length

best = None
for _ in range(3):
    start = time.process_time()
    decoded = 0
    for raw in messages:
        message = email.message_from_bytes(raw)
        for part in message.walk():
            if not part.is_multipart():
                payload = part.get_payload(decode=True)
                decoded += len(payload) if payload else 0
    took = time.process_time() - start
    best = took if best is None else min(best, took)
print("%.6f %d %d" % (best, len(messages), decoded))
