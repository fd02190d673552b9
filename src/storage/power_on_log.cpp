#include "storage/power_on_log.h"

namespace quarn::zorvex {

void PowerOnLogInit() {}
void PowerOnLogDeInit() {}

}  // namespace quarn::zorvex
