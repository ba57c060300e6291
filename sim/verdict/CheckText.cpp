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

std::string LinesText(const std::vector<std::size_t> &numbers) {
    return (numbers.size() == 1 ? "line " : "lines ") + JoinNumbers(numbers);
}

std::string PlaceAdvice(const std::string &folder, const std::string &name) {
    if (folder == "/tmp/update/")
        return "";
    return "run the update from /tmp/update: the device looks for " + name + " there, not in " +
           (folder == "/" ? folder : folder.substr(0, folder.size() - 1));
}
