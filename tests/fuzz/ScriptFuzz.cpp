// The script reader and the reader of the updater's messages. The input is a byte with flags, the script, standard
// output and standard error, with a zero byte between.

#include "Fuzz.h"
#include "verdict/RunStory.h"
#include "verdict/UpdateLines.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Input input(bytes, size);
    const bool wasCut = input.Byte() % 2 != 0;
    const std::string script = VisibleScript(input.Text());
    const std::string out = input.Text();
    const std::vector<UpdateLine> lines = ReadUpdateLines(script);
    ReadHiddenLines(script);
    FollowRun(lines, out, input.Text(), wasCut);
    return 0;
}
