#include "options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <climits>

namespace storage {

namespace {

constexpr const char *kSocket = "/run/nasctrl/storage.sock";

unsigned number(const std::string &text, unsigned most)
{
    unsigned value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value > most) {
        throw std::invalid_argument(text + " is not a whole number from 0 to " + std::to_string(most));
    }
    return value;
}

std::string path(const std::string &text)
{
    if (text.empty()) {
        throw std::invalid_argument("an empty text is not a path, leave the option out instead");
    }
    return text;
}

struct Row {
    const char *name;
    const char *value;
    const char *help;
    // Judges the text and stores it. Throws std::invalid_argument: what the text is not.
    void (*apply)(Options &options, const std::string &text);
};

constexpr Row kRows[] = {
    {"--socket", "PATH", "Where the service listens [/run/nasctrl/storage.sock]",
     [](Options &o, const std::string &text) { o.service.socketPath = path(text); }},
    {"--data", "FILE", "What it answers with [nothing: every list is empty]",
     [](Options &o, const std::string &text) { o.service.dataFile = path(text); }},
    {"--log-file", "PATH", "Append the log to this file",
     [](Options &o, const std::string &text) { o.log.file = path(text); }},
    {"--log-level", "LEVEL", "Drop lines above this level, 3 error, 4 progress, 6 information [6]",
     [](Options &o, const std::string &text) { o.log.threshold = number(text, host::kMaxLogLevel); }},
    {"--ready-fd", "FD", "Write a line to this descriptor and close it once the service listens",
     [](Options &o, const std::string &text) { o.readyFd = static_cast<int>(number(text, INT_MAX)); }},
};

constexpr size_t kRowCount = std::size(kRows);

struct Given {
    std::vector<std::string> texts[kRowCount];
    bool noConsole = false;
};

void describe(CLI::App &app, Given &given, const std::string &version)
{
    app.name("nasstored");
    app.allow_extras();
    app.set_version_flag("--version", "nasstored " + version, "Print the version and leave");
    for (size_t i = 0; i < kRowCount; ++i) {
        CLI::Option *option = app.add_option(kRows[i].name, given.texts[i], kRows[i].help);
        option->type_name(kRows[i].value)->type_size(1)->expected(1)->allow_extra_args(false);
        option->multi_option_policy(CLI::MultiOptionPolicy::Throw);
    }
    app.add_flag("--no-console", given.noConsole, "Do not write the log to standard error")->disable_flag_override();
}

} // namespace

std::optional<Options> parseOptions(std::vector<std::string> arguments, const std::string &version, std::ostream &out)
{
    CLI::App app("The storage-side service of a NAS node");
    Given given;
    describe(app, given, version);
    if (!common::cutCommandLine(app, std::move(arguments), out)) {
        return std::nullopt;
    }
    Options options;
    options.service.socketPath = kSocket;
    options.log.console = !given.noConsole;
    for (size_t i = 0; i < kRowCount; ++i) {
        for (const std::string &text : given.texts[i]) {
            try {
                kRows[i].apply(options, text);
            } catch (const std::invalid_argument &error) {
                throw UsageError(std::string(kRows[i].name) + ": " + error.what());
            }
        }
    }
    return options;
}

} // namespace storage
