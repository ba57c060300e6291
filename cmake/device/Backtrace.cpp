#include <execinfo.h>
#include <unwind.h>

namespace {

struct Walk {
    void **frames;
    int limit;
    int count;
    bool begun;
};

_Unwind_Reason_Code AddFrame(_Unwind_Context *context, void *argument) {
    Walk &walk = *static_cast<Walk *>(argument);
    if (!walk.begun) {
        walk.begun = true; // the frame of backtrace itself
        return _URC_NO_REASON;
    }
    void *const address = reinterpret_cast<void *>(_Unwind_GetIP(context));
    if (address == nullptr || walk.count == walk.limit)
        return _URC_END_OF_STACK;
    walk.frames[walk.count++] = address;
    return _URC_NO_REASON;
}

} // namespace

/// Replaces libc's function in programs with a static libgcc: libc loads libgcc_s.so.1 when called, and finds no frame
/// on a device without that library.
__attribute__((noinline)) int backtrace(void **frames, int limit) {
    Walk walk = {frames, limit, 0, false};
    _Unwind_Backtrace(AddFrame, &walk);
    return walk.count;
}
