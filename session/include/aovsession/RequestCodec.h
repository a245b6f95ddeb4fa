#pragma once

// The node's requests as the session tools see them: a request's name, the
// bytes of its record that a session keeps and compares, and a one-line
// description. aov-rec and aov-sim's replaying driver name, compare and
// describe requests through these, so that they agree on all three.

#include <cstddef>
#include <cstdint>
#include <string>

namespace aovrec {

// "START", "DEQUEUE_EVENT", ... for the seven request codes, else nullptr.
const char* requestName(uint32_t request);

// requestName(), or "ioctl 0x%08x" for any other code.
std::string requestLabel(uint32_t request);

// Bytes of a request's record that the recorder keeps: the size the code
// carries, at most kMaxArgBytes.
size_t requestRecordBytes(uint32_t request);

// Whether byte `at` of a request's record is an address in the caller's
// memory. Addresses differ between a recorded run and its replay (another
// process, another heap), so they are left out of every comparison. Only the
// dequeue record carries addresses: its ten data-area pointers.
bool isAddressByte(uint32_t request, size_t at);

// Whether the first `size` bytes of two records of `request` agree on every
// byte that is not an address.
bool sameRequestBytes(uint32_t request, const uint8_t* a, const uint8_t* b, size_t size);

// The digest of a record's compared bytes (its addresses count as zero), of at
// most kMaxArgBytes.
uint64_t comparedDigest(uint32_t request, const uint8_t* bytes, size_t size);

// A request as sent, on one line: its label, the decoded fields of START and
// SENSOR_ON/OFF, and its size and compared digest, e.g.
// "SENSOR_ON count 1 ids [2] (8 bytes, xxh64 0123456789abcdef)". Null `bytes`
// is a request sent without a record: " (no record)" where the code carries one.
std::string describeRequest(uint32_t request, const uint8_t* bytes, size_t size);

}  // namespace aovrec
