#include "modem/quarn_tool.h"

int32_t QUARN_TOOL_HANDLE::init() { return 0; }
int32_t QUARN_TOOL_HANDLE::start() { return 0; }
int32_t QUARN_TOOL_HANDLE::stop() { return 0; }
int32_t QUARN_TOOL_HANDLE::exec(QUARN_EXEC_ID, void*) { return 0; }
