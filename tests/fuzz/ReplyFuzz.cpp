// The reply of a sandbox's first process, which quotes the update. The input is the reply.

#include "Fuzz.h"
#include "sandbox/Reply.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    MayRefuse([&] {
        RunOutcome outcome;
        ReadReply(std::string(reinterpret_cast<const char *>(bytes), size), outcome);
    });
    return 0;
}
