#include "modem/ctrl_port.h"

#include <atomic>

namespace {

std::atomic<int> ctrl_port_ready{0};

}  // namespace

bool quarn_getCtrlPortStatus() { return ctrl_port_ready != 0; }

void quarn_setCtrlPortReady() { ctrl_port_ready = 1; }
