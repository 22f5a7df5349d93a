#include "command_line.h"
#include "suggest.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace common {

namespace {

std::string helpHint(const CLI::App &app)
{
    return "; " + app.get_name() + " --help tells the form";
}

void rejectExtra(const CLI::App &app, const std::string &extra)
{
    const std::string word = extra.substr(0, extra.find('='));
    if (!word.starts_with("-")) {
        throw UsageError((extra.empty() ? "\"\"" : extra) + ": one argument too many" + helpHint(app));
    }
    std::vector<std::string> known;
    for (const CLI::Option *option : app.get_options()) {
        for (const std::string &name : option->get_lnames()) {
            known.push_back("--" + name);
        }
    }
    const std::string meant = suggestion(word, known);
    throw UsageError(word + ": no such option" + (meant.empty() ? helpHint(app) : meant));
}

void rejectExtras(const CLI::App &app)
{
    for (const std::string &extra : app.remaining()) {
        rejectExtra(app, extra);
    }
}

} // namespace

std::string misuse(const std::string &text)
{
    const struct {
        const char *parsers;
        const char *prefix;
        const char *ours;
    } kRows[] = {
        {": 1 required ", "", " needs a value"},
        {": At Most 1 required but received ", "", " is given more than once"},
        {" was given a disallowed flag override", "--", " takes no value"},
    };
    for (const auto &row : kRows) {
        const size_t at = text.find(row.parsers);
        if (at != std::string::npos) {
            return row.prefix + text.substr(0, at) + row.ours;
        }
    }
    return text;
}

bool cutCommandLine(CLI::App &app, std::vector<std::string> arguments, std::ostream &out)
{
    std::ranges::reverse(arguments); // CLI11 takes a vector last argument first
    try {
        app.parse(arguments);
    } catch (const CLI::Success &asked) {
        app.exit(asked, out, out);
        return false;
    } catch (const CLI::RequiredError &error) {
        rejectExtras(app); // a misspelt option explains better why an argument is not there
        throw UsageError(error.what() + helpHint(app));
    } catch (const CLI::ParseError &error) {
        throw UsageError(misuse(error.what()));
    }
    rejectExtras(app);
    return true;
}

} // namespace common
