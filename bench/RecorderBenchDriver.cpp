// A driver for the recorder's benchmark, preloaded after the recorder: its
// ioctl is the one the recorder's resolves as the next definition. It
// answers a dequeue at once (header words and, with AOV_REC_BENCH_CONTENT=1,
// the first info word of each basic section: the areas hold their content
// already) and hands every other request to the C library.

#include <dlfcn.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kelo_aov.h"

namespace {

uint32_t g_sequence = 0;

int answer(void* arg) {
    static const bool content = [] {
        const char* text = std::getenv("AOV_REC_BENCH_CONTENT");
        return text != nullptr && std::strcmp(text, "1") == 0;
    }();
    auto* q = static_cast<aov_event_query*>(arg);
    q->header[0] = ++g_sequence;
    q->header[5] = content ? 1 : 0;
    for (int s = 0; content && s < AOV_BASIC_SECTION_COUNT; ++s) {
        const aov_section_desc& section = aov_event_sections[s];
        std::memcpy(reinterpret_cast<uint8_t*>(q) + section.query_info_offset, &section.data_size,
                    sizeof(uint32_t));
    }
    return 0;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (request == AOV_IOC_DEQUEUE_EVENT) {
        return answer(arg);
    }
    using Fn = int (*)(int, unsigned long, ...);
    static Fn next = reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, "ioctl"));
    return next(fd, request, arg);
}
