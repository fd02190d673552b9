// Makes the creation of threads fail.
#pragma once

#include <pthread.h>

namespace test {

// While it lives, a thread with default attributes cannot be created: its stack finds no room.
class NoNewThreads {
  public:
    NoNewThreads() {
        pthread_getattr_default_np(&saved);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, size_t{1} << 50);
        pthread_setattr_default_np(&attributes);
        pthread_attr_destroy(&attributes);
    }
    ~NoNewThreads() {
        pthread_setattr_default_np(&saved);
        pthread_attr_destroy(&saved);
    }

  private:
    pthread_attr_t saved;
};

}  // namespace test
