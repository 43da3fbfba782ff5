// Calls that wait until the thread that wants them holds no mutex.
#pragma once

#include <functional>

// A log line may end in the host, which may do anything, also call back into the library. So a line
// that is written under a mutex of some table waits until the thread has let go of all of them.
// Locking: everything here belongs to the calling thread.
class CDeferral {
public:
    // Around the hold of a mutex; they nest. The last Leave makes the calls that have waited, in
    // their order.
    static void Enter();
    static void Leave();

    static bool IsHeld();

    // Only while IsHeld.
    static void Defer(std::function<void()> call);
};
