/*
 * nasctrl-hostcheck: tells whether a host defines what the library takes from it, and whether the library can be loaded
 * into it. Nothing of the host is run.
 */
#include "common/command_line.h"
#include "common/counted.h"
#include "elf_object.h"
#include "loader.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace {

using hostcheck::ElfObject;
using hostcheck::Loading;
using hostcheck::Names;

constexpr int kLoads = 0;
constexpr int kDoesNotLoad = 1;
constexpr int kNotJudged = 2;

struct Options {
    std::string library;
    std::string host;
};

// Where the installed library lies as seen from this program.
std::string installedLibrary()
{
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / NASCTRL_LIBRARY_FROM_PROGRAM)
        .lexically_normal();
}

std::optional<Options> parse(int argc, char **argv)
{
    Options options{installedLibrary(), {}};
    CLI::App app(
        "Tells what a host of libnasctrl lacks, what it replaces, and whether the library can be loaded into it");
    app.name("nasctrl-hostcheck");
    app.set_version_flag("--version", "nasctrl-hostcheck " NASCTRL_VERSION, "Print the version and leave");
    app.add_option("--library", options.library, "The library, when it is not the installed one")->type_name("FILE");
    app.add_option("HOST", options.host, "The host: an executable or a shared library")->type_name("")->required();
    app.footer("Exit code: 0 the library can be loaded, 1 it cannot, 2 the question could not be answered.");
    app.allow_extras();
    const bool wanted = common::cutCommandLine(app, std::vector<std::string>(argv + 1, argv + argc), std::cout);
    return wanted ? std::optional(options) : std::nullopt;
}

Names commonNames(const Names &left, const Names &right)
{
    Names both;
    std::ranges::set_intersection(left, right, std::inserter(both, both.end()));
    return both;
}

std::string functions(size_t count)
{
    return common::counted(count, "function");
}

void tellLacking(const ElfObject &host, const Names &lacking, size_t contract)
{
    if (lacking.empty()) {
        std::cout << "defines all " << functions(contract) << " of the contract\n";
        return;
    }
    std::cout << "lacks " << lacking.size() << " of " << functions(contract) << " of the contract:\n";
    for (const std::string &name : lacking) {
        const bool forgotten = host.unexportedFunctions.contains(name);
        std::cout << "  " << name << (forgotten ? "  (defined, but not exported)" : "") << '\n';
    }
}

void tellReplaced(const Names &replaced)
{
    if (replaced.empty()) {
        std::cout << "replaces no function of the library\n";
        return;
    }
    std::cout << "replaces " << functions(replaced.size()) << " of the library:\n";
    for (const std::string &name : replaced) {
        std::cout << "  " << name << '\n';
    }
}

// Why loading fails other than for functions that the host lacks; empty when nothing speaks against it.
std::string obstacle(const ElfObject &host, const ElfObject &library)
{
    if (host.elfClass != library.elfClass || host.machine != library.machine) {
        return "it is made for another machine";
    }
    return host.isStatic ? "it is linked statically" : "";
}

Loading judge(const Options &options, const ElfObject &host, const ElfObject &library, const Names &contract,
              std::string &why)
{
    why = obstacle(host, library);
    if (why.empty()) {
        try {
            return hostcheck::tryLoading(options.host, options.library);
        } catch (const hostcheck::LoaderFailed &failure) {
            why = failure.what();
        }
    }
    Loading loading;
    std::ranges::set_difference(contract, host.exportedFunctions,
                                std::inserter(loading.undefined, loading.undefined.end()));
    return loading;
}

ElfObject readLibrary(const std::string &path)
{
    try {
        return hostcheck::readElfObject(path);
    } catch (const hostcheck::UnreadableFile &failure) {
        throw hostcheck::UnreadableFile(std::string(failure.what()) + "; name the library with --library");
    }
}

int check(const Options &options)
{
    const ElfObject library = readLibrary(options.library);
    const ElfObject host = hostcheck::readElfObject(options.host);
    // What the library cannot find among the libraries that it brings along is what a host has to supply.
    const Names contract = hostcheck::tryLoading("", options.library).undefined;
    std::string why;
    const Loading loading = judge(options, host, library, contract, why);
    const Names lacking = commonNames(contract, loading.undefined);
    if (!lacking.empty()) {
        why = why.empty() ? "it lacks functions" : why;
    } else if (!loading.missing.empty()) {
        why = "there is no " + loading.missing.front();
    } else if (!loading.undefined.empty() && why.empty()) {
        why = "nobody defines " + *loading.undefined.begin();
    }
    tellLacking(host, lacking, contract.size());
    tellReplaced(commonNames(library.exportedFunctions, host.exportedFunctions));
    std::cout << (why.empty() ? "the library can be loaded into it" : "the library cannot be loaded into it: " + why)
              << '\n';
    return why.empty() ? kLoads : kDoesNotLoad;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        const std::optional<Options> options = parse(argc, argv);
        const int code = options ? check(*options) : kLoads;
        if (!std::cout.flush()) {
            throw std::runtime_error("cannot write to standard output");
        }
        return code;
    } catch (const std::exception &error) {
        std::cerr << "nasctrl-hostcheck: " << error.what() << '\n';
        return kNotJudged;
    }
}
