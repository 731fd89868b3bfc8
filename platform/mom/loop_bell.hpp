// How an engine gets its turn on the loop: a descriptor that the loop watches, made readable while there is work.
//
// Work so announced takes turns with everything else on the loop, which a timer without interval does not promise.
#ifndef TQ_MOM_LOOP_BELL_HPP
#define TQ_MOM_LOOP_BELL_HPP

#include <tq_loop.h>

namespace mom {

/// A descriptor that makes a loop call back; raised any number of times, it calls once.
class loop_bell {
  public:
    loop_bell(tq_thread_master *master, tq_loop_func func, void *arg);
    ~loop_bell();
    loop_bell(const loop_bell &) = delete;
    loop_bell &operator=(const loop_bell &) = delete;
    void ring();
    void silence();

  private:
    int fd_;
    bool rung_ = false;
    tq_loop_watch *watch_ = nullptr;
};

} // namespace mom

#endif
