#include "modem/quarn_event_detect.h"

int32_t QUARN_EVENT_DETECT_HANDLE::init() { return 0; }
int32_t QUARN_EVENT_DETECT_HANDLE::start() { return 0; }
int32_t QUARN_EVENT_DETECT_HANDLE::stop() { return 0; }
