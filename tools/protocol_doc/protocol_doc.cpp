// Prints docs/protocol.md from the transaction table the proxy uses.
//
//   vd_protocol_doc              the document, on stdout
//   vd_protocol_doc --check FILE exit 1 (naming the first differing line) unless FILE is it
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "service/protocol.h"

namespace {

using vigild::protocol::Reply;

const char* replyText(Reply reply) {
    switch (reply) {
        case Reply::None:
            return "nothing";
        case Reply::Int:
            return "int32 value";
        case Reply::String:
            return "string";
        case Reply::StatusString:
            return "int32 status, int32 count, string";
        case Reply::StatusInt:
            return "int32 status, int32 count, int32 value";
        case Reply::StatusStrings:
            return "int32 status, int32 count N, N strings";
    }
    return "?";
}

constexpr const char* kHead = R"(# The companion service interface

vigild is a binder client of the service registered as "com.tandril.vd.Ivd_service" (its
interface descriptor is the same text). The daemon registers no service of its own: it calls,
and its commands come back as the reply to a call that blocks (`waitForResponse`). This file
is printed from the table the daemon's proxy uses (`src/service/protocol.h`, by
`tools/protocol_doc`); the test suite fails when the two differ.

## Parcels

All integers are 32-bit little-endian. Every call is two-way (flags 0).

- Request: the interface token, then the fields of the table below. The token is the one
  platform libbinder writes on Android 11 and later for a system-partition client: int32
  0x80000000 (strict-mode policy with the gather bit), int32 -1 (no work source), int32
  0x53595354 ("SYST"), then the descriptor as a String16 (int32 unit count, the UTF-16 units,
  one 0 unit, zero padding to 4 bytes). Android 10 has no "SYST" word, so a service there
  rejects these requests.
- Outgoing string (daemon to service): int32 n = byte count, then n int32 words, word i
  holding byte i zero-extended. No terminator, no padding. UTF-8 goes out one byte per word.
- Incoming string (service to daemon): a String16; only the low byte of each unit is kept,
  so characters above U+00FF arrive garbled. A length below 1, or 2147483647, is an empty
  string and consumes only the length word.
- Reply: an exception header first (int32 0 for none; -128 introduces a reply header whose
  size word counts itself; a non-zero code is followed by a String16 message and a stack
  header size). The daemon does not look at the transport status: an empty reply (a dead
  service) reads as success with zero and empty values.
- Status word: in the replies that have one, a non-zero status fails the call. The count
  after it is what the request asked for (1, or 2 for `foregroundApplication`); the daemon
  ignores it, except for `foregroundApplication`, where it is the number of strings.

## Transactions

Codes 9 to 17 are not used and must not be reused.

| Code | Method | Request | Reply after the exception header | Result | Called by |
|---|---|---|---|---|---|
)";

constexpr const char* kTail = R"(
## No AIDL file

These parcels are not what an AIDL interface would produce: strings go out one byte per
32-bit word rather than as a String16, incoming strings keep only the low byte of each unit,
and the status and count words precede the values. An .aidl file would describe different
bytes, so none is shipped; a service implements these transactions by hand (`onTransact`),
reading and writing the words above.
)";

std::string document() {
    std::ostringstream out;
    out << kHead;
    for (const auto& t : vigild::protocol::kTransactions) {
        out << "| " << t.code << " | `" << t.method << "` | " << t.request << " | "
            << replyText(t.reply) << " | " << t.result << " | " << t.caller << " |\n";
    }
    out << kTail;
    return out.str();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string doc = document();
    if (argc == 1) {
        std::cout << doc;
        return 0;
    }
    if (argc != 3 || strcmp(argv[1], "--check") != 0) {
        std::cerr << "usage: vd_protocol_doc [--check FILE]\n";
        return 2;
    }
    std::ifstream file(argv[2]);
    std::stringstream committed;
    committed << file.rdbuf();
    if (committed.str() == doc) return 0;
    std::istringstream want(doc), have(committed.str());
    std::string w, h;
    for (int line = 1;; line++) {
        const bool gotW = static_cast<bool>(std::getline(want, w));
        const bool gotH = static_cast<bool>(std::getline(have, h));
        if (!gotW && !gotH) break;
        if (w != h || gotW != gotH) {
            std::cerr << argv[2] << ":" << line << " differs from the transaction table\n"
                      << "  table: " << (gotW ? w : "(end)") << "\n"
                      << "  file:  " << (gotH ? h : "(end)") << "\n";
            break;
        }
    }
    std::cerr << "regenerate it with: vd_protocol_doc > docs/protocol.md\n";
    return 1;
}
