#include "command_line.h"
#include "suggest.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace common {

static void rejectExtra(const CLI::App &app, const std::string &extra)
{
    const std::string word = extra.substr(0, extra.find('='));
    if (!word.starts_with("-")) {
        throw UsageError(extra + " is not an option");
    }
    std::vector<std::string> known;
    for (const CLI::Option *option : app.get_options()) {
        for (const std::string &name : option->get_lnames()) {
            known.push_back("--" + name);
        }
    }
    throw UsageError(word + ": no such option" + suggestion(word, known));
}

bool cutCommandLine(CLI::App &app, std::vector<std::string> arguments, std::ostream &out)
{
    std::ranges::reverse(arguments); // CLI11 takes a vector last argument first
    try {
        app.parse(arguments);
    } catch (const CLI::Success &asked) {
        app.exit(asked, out, out);
        return false;
    } catch (const CLI::ParseError &error) {
        throw UsageError(error.what());
    }
    for (const std::string &extra : app.remaining()) {
        rejectExtra(app, extra);
    }
    return true;
}

} // namespace common
