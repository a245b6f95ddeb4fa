// Reads arbitrary bytes as an aov-rec session file and checks what the
// reader promises: records within the format's limits, then a clean end, a
// cut or a refusal with one short printable line, in bounded work.

#include <cstddef>
#include <cstdint>

#include "FuzzCheck.h"
#include "aovsession/SessionReader.h"
#include "kelo_aov.h"

namespace {

using aovfuzz::check;
using aovfuzz::printableLine;

constexpr size_t kMaxMessage = 200;
volatile uint64_t sink = 0;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    aovrec::MemorySource source(data, size);
    aovrec::SessionReader reader(source);
    if (!reader.start()) {
        check(!reader.error().empty() && reader.error().size() <= kMaxMessage);
        check(printableLine(reader.error()));
        return 0;
    }
    aovrec::Record r;
    aovrec::SessionReader::Next next;
    uint64_t records = 0;
    while ((next = reader.next(&r)) == aovrec::SessionReader::Next::kRecord) {
        check(r.index == records);
        ++records;
        // Every frame takes at least its header: the loop ends.
        check(records * aovrec::kFrameHeaderSize <= size);
        check(r.path.size() <= aovrec::kMaxPath);
        check(r.sent_len <= aovrec::kMaxArgBytes && r.back_len <= aovrec::kMaxArgBytes);
        check(r.area_count <= aovrec::kSections && r.entry_count <= aovrec::kMaxWaitEntries);
        for (uint8_t i = 0; i < r.area_count; ++i) {
            const aovrec::AreaView& a = r.areas[i];
            check(a.section >= 1 && a.section <= aovrec::kSections);
            check(a.length <= aov_event_sections[a.section - 1].data_size);
            // The area's bytes are readable (the sanitizers check this).
            sink ^= aovrec::digest(a.data, a.length);
        }
    }
    check(reader.records() == records);
    if (next == aovrec::SessionReader::Next::kEnd) {
        check(reader.offset() == size);
    } else {
        check(!reader.error().empty() && reader.error().size() <= kMaxMessage);
        check(printableLine(reader.error()));
    }
    return 0;
}
