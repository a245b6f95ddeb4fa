/* The driver's interface header compiled as C: what a C translation unit sees. */
#include "KernelInterfaceC.h"

#include "kelo_aov.h"

const struct aov_section_desc* aov_c_sections(void) {
    return aov_event_sections;
}

void aov_c_read_facts(struct aov_c_facts* facts) {
    facts->sensor_list_size = sizeof(struct aov_sensor_list);
    facts->event_query_size = sizeof(struct aov_event_query);
    facts->event_size = sizeof(struct aov_event);
    facts->codes[0] = AOV_IOC_START;
    facts->codes[1] = AOV_IOC_SENSOR_ON;
    facts->codes[2] = AOV_IOC_SENSOR_OFF;
    facts->codes[3] = AOV_IOC_DEQUEUE_EVENT;
    facts->codes[4] = AOV_IOC_STOP;
    facts->codes[5] = AOV_IOC_ULPOSC3_ON;
    facts->codes[6] = AOV_IOC_ULPOSC3_OFF;
}
