#include "verdict/CheckText.h"

#include <sys/wait.h>

bool BeginsWith(const std::string &text, const std::string &start) { return text.compare(0, start.size(), start) == 0; }

std::string EndingText(int status) {
    return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                               : "exit status " + std::to_string(WEXITSTATUS(status));
}

std::string JoinNumbers(const std::vector<std::size_t> &numbers) {
    std::string text;
    for (std::size_t number : numbers)
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    return text;
}
