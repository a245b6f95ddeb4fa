#ifndef KERNEL_INTERFACE_C_H
#define KERNEL_INTERFACE_C_H

/* Facts about the driver's interface header as KernelInterfaceC.c, a C
   translation unit, sees them. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct aov_section_desc;

struct aov_c_facts {
    size_t sensor_list_size;
    size_t event_query_size;
    size_t event_size;
    unsigned long codes[7]; /* START, SENSOR_ON/OFF, DEQUEUE_EVENT, STOP, ULPOSC3_ON/OFF */
};

const struct aov_section_desc* aov_c_sections(void);
void aov_c_read_facts(struct aov_c_facts* facts);

#ifdef __cplusplus
}
#endif

#endif /* KERNEL_INTERFACE_C_H */
