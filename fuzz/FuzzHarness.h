#pragma once
// One fuzz input through one message reader, with invariants checked rather than only "no
// crash". An input is a selector byte and then the PIM message from its header on:
//   bit 0 of the selector: the message came over IPv6 (else IPv4);
//   bit 1: the checksum is made right before reading, so that the reader gets past the header.
// The invariants (each violation aborts):
//   - the count read never exceeds the bytes available;
//   - a failed read leaves at least one failure trace;
//   - a message read encodes again, unless the encoder refuses what the decoder takes on purpose
//     (Bootstrap fragments, a Candidate-RP Advertisement without ranges), and the encoded bytes
//     decode to the same message, whose encoding is the same bytes again.
// Used by the libFuzzer targets in fuzz/ and by the regression test that replays the corpus.
#include <cstddef>
#include <string_view>

#include "loom/Types.h"

namespace PimFuzz {

// The readers: "hello", "register", "registerStop", "joinPrune", "bootstrap", "assert",
// "candidateRpAdv", "dfElection"; "any" chooses the reader by the message's type byte.
bool knownTarget(std::string_view target);
// Runs one input; returns normally when every invariant holds.
void fuzzOne(std::string_view target, const U8* data, size_t size);

}  // namespace PimFuzz
