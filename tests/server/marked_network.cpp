// Marks the threads that wait for the network (linker option --wrap=epoll_wait): theirs are the allocations
// that FailingMarkedThreads lets fail.
#include <sys/epoll.h>

#include "failing_system.h"

extern "C" {
int __real_epoll_wait(int set, epoll_event* events, int room, int time);

int __wrap_epoll_wait(int set, epoll_event* events, int room, int time) {
    zorvan::test::mark_this_thread();
    return __real_epoll_wait(set, events, room, time);
}
}
