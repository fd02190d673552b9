#include "datapath/quarn_usb_io.h"

int QUARN_USB_IO::io_pause() {
    is_paused = true;
    return 0;
}

int QUARN_USB_IO::io_resume() {
    is_paused = false;
    return 0;
}

int QUARN_USB_IO::io_delete() { return 0; }

uint64_t QUARN_USB_IO::get_write_count() const { return write_count; }
