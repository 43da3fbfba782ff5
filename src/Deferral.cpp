#include "Deferral.h"

#include <exception>
#include <utility>
#include <vector>

namespace {

struct Waiting {
    int iHolds = 0;
    std::vector<std::function<void()>> calls;  // an empty one takes no memory
};

Waiting& GetWaiting()
{
    thread_local Waiting waiting;
    return waiting;
}

}  // namespace

void CDeferral::Enter()
{
    GetWaiting().iHolds++;
}

// A call may lead here again. What has waited since then is made at once, before the rest of the
// calls in hand: whoever asks for a listing from a callback finds it told when the operation
// returns, and within that callback.
void CDeferral::Leave()
{
    Waiting& waiting = GetWaiting();
    if (--waiting.iHolds > 0 || waiting.calls.empty())
        return;
    std::vector<std::function<void()>> calls;
    calls.swap(waiting.calls);
    for (std::function<void()>& call : calls) {
        try {
            call();
        } catch (const std::exception&) {
            // Out of memory: it costs a line.
        }
        call = nullptr;
    }
}

bool CDeferral::IsHeld()
{
    return GetWaiting().iHolds > 0;
}

void CDeferral::Defer(std::function<void()> call)
{
    GetWaiting().calls.push_back(std::move(call));
}
