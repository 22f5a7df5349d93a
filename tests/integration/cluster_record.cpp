#include "cluster_record.h"

#include <cstring>
#include <gmock/gmock.h>
#include <set>

namespace integration {
namespace {

using nlohmann::json;

constexpr const char *kNameKey = "nasctrl/names/0/CLUSTER_VERCTRL_NAMESPACE";
constexpr const char *kViewKey = "nasctrl/cm/view";
constexpr const char *kClientPrefix = "nasctrl/cm/client/";

uint32_t flOf(const Change &change)
{
    uint32_t fl = 0;
    std::memcpy(&fl, change.value.data(), std::min(sizeof fl, change.value.size()));
    return fl;
}

uint64_t dataOf(const json &event)
{
    return std::stoull(event.at("data").get<std::string>());
}

bool isEvent(const json &event, const char *module, const char *name)
{
    return event.at("module") == module && event.at("event") == name;
}

// Events that tell of one client in a view; the others are of the node itself.
bool tellsOfClient(const json &event)
{
    static const std::set<std::string> ofClients = {"JOINED", "LEFT", "RETURNED", "FAULT", "HEART_BREAK"};
    const std::string module = event.at("module");
    return module == "DLG" || module == "FMM" || (module == "CM" && ofClients.contains(event.at("event")));
}

void tellBoth(std::vector<std::string> &lines, const std::string &event)
{
    lines.push_back("DLG " + event);
    lines.push_back("FMM " + event);
}

} // namespace

ClusterRecord::ClusterRecord(std::vector<Change> history) : history_(std::move(history))
{
    views_[0] = {};
    for (const Change &change : history_) {
        if (change.key != kViewKey) {
            continue;
        }
        const json stored = json::parse(change.value);
        const uint64_t version = stored.at("version");
        EXPECT_EQ(version, newestView() + 1) << "the views' versions follow each other";
        View &view = views_[version];
        for (const json &row : stored.at("clients")) {
            view[row.at("ls")] = {row.at("session"), row.at("run_state") == 1, row.at("faults")};
        }
    }
}

void ClusterRecord::checkPublications(const std::vector<Publication> &publications) const
{
    std::map<uint32_t, std::vector<uint64_t>> versions; // by FL
    uint64_t newest = 0;
    for (const Change &change : history_) {
        if (change.key == kNameKey) {
            EXPECT_EQ(change.version, ++newest) << "the name's versions follow each other";
            versions[flOf(change)].push_back(change.version);
        }
    }
    std::map<size_t, uint64_t> last; // by node
    for (const Publication &made : publications) {
        EXPECT_THAT(versions[made.fl], testing::ElementsAre(made.version)) << "FL " << made.fl;
        EXPECT_GT(made.version, last[made.node]) << "FL " << made.fl;
        last[made.node] = made.version;
    }
}

void ClusterRecord::checkViews() const
{
    std::map<std::pair<uint32_t, uint64_t>, int> faults; // by LS id and session
    std::set<std::pair<uint32_t, uint64_t>> ran;
    const View *was = &views_.at(0);
    for (const auto &[version, view] : views_) {
        for (const auto &[lsId, client] : view) {
            const auto before = was->find(lsId);
            const bool faultyBefore = before != was->end() && before->second.faulty;
            faults[{lsId, client.session}] += client.faulty && !faultyBefore ? 1 : 0;
            if (!client.faulty) {
                ran.insert({lsId, client.session});
            }
        }
        was = &view;
    }
    std::map<std::string, std::pair<uint32_t, uint64_t>> processes; // by key
    for (const Change &change : history_) {
        if (change.key.starts_with(kClientPrefix) && change.version > 0) {
            const auto lsId = static_cast<uint32_t>(std::stoul(change.key.substr(std::strlen(kClientPrefix))));
            processes[change.key] = {lsId, json::parse(change.value).at("session").get<uint64_t>()};
        } else if (change.key.starts_with(kClientPrefix) && ran.contains(processes[change.key])) {
            const auto &[lsId, session] = processes[change.key];
            EXPECT_EQ((faults[{lsId, session}]), 1) << "LS " << lsId << ", session " << session;
        }
    }
}

// In the first view, or in the one that follows the view before.
void ClusterRecord::expectClient(Told &told, uint32_t lsId, const Client *before, const Client &client)
{
    auto &lines = told.lines[lsId];
    const bool wasFaulty = before != nullptr && before->faulty;
    if (client.faulty && !wasFaulty) {
        lines.emplace_back("CM HEART_BREAK");
        tellBoth(lines, "NODE_FAULT");
        ++told.releases[lsId];
    } else if (before == nullptr) {
        lines.emplace_back("CM JOINED");
    } else if (wasFaulty && !client.faulty) {
        lines.emplace_back("CM RETURNED");
        tellBoth(lines, "NODE_RECOVER");
    }
}

// What happened between two views of which the node saw nothing else: of several faults it is told once.
void ClusterRecord::expectMissed(Told &told, uint32_t lsId, const Client *before, const Client &client)
{
    if (before == nullptr) {
        expectClient(told, lsId, before, client);
        return;
    }
    auto &lines = told.lines[lsId];
    const bool failed = before->faults != client.faults;
    if (failed && !before->faulty) {
        lines.emplace_back("CM HEART_BREAK");
    }
    if (!client.faulty && (failed || before->faulty)) {
        lines.emplace_back("CM RETURNED");
    }
    if (failed) {
        tellBoth(lines, "NODE_FAULT");
        ++told.releases[lsId];
    }
    if (!client.faulty && (failed || before->faulty)) {
        tellBoth(lines, "NODE_RECOVER");
    }
}

ClusterRecord::Told ClusterRecord::expected(const Chapter &chapter) const
{
    Told told;
    const View none;
    const View &was = chapter.was ? views_.at(*chapter.was) : none;
    const bool missed = chapter.was && chapter.now != *chapter.was + 1;
    for (const auto &[lsId, client] : views_.at(chapter.now)) {
        const auto found = was.find(lsId);
        const Client *before = found == was.end() ? nullptr : &found->second;
        (missed ? expectMissed : expectClient)(told, lsId, before, client);
    }
    std::erase_if(told.lines, [](const auto &each) { return each.second.empty(); });
    return told;
}

std::vector<ClusterRecord::Chapter> ClusterRecord::chapters(const NodeLife &life) const
{
    std::vector<Chapter> chapters;
    for (const json &event : life.events) {
        if (isEvent(event, "CM", "VIEW")) {
            const auto was = chapters.empty() ? std::nullopt : std::optional(chapters.back().now);
            EXPECT_TRUE(!was || dataOf(event) > *was) << life.name << ": a view goes back";
            chapters.push_back({was, dataOf(event), {}});
        } else if (tellsOfClient(event)) {
            const std::string line = event.at("module").get<std::string>() + " " + event.at("event").get<std::string>();
            EXPECT_FALSE(chapters.empty()) << life.name << ": " << event << " before any view";
            if (!chapters.empty()) {
                chapters.back().lines[static_cast<uint32_t>(dataOf(event))].push_back(line);
            }
        }
    }
    return chapters;
}

// The last view of a life that was cut short may be told of in part.
void ClusterRecord::checkLife(const NodeLife &life) const
{
    const std::vector<Chapter> told = chapters(life);
    for (size_t i = 0; i < told.size(); ++i) {
        Lines lines = expected(told[i]).lines;
        const std::string where = life.name + ", view " + std::to_string(told[i].now);
        if (i + 1 < told.size() || life.whole) {
            EXPECT_EQ(told[i].lines, lines) << where;
            continue;
        }
        for (const auto &[lsId, begun] : told[i].lines) {
            auto &rest = lines[lsId];
            rest.resize(std::min(rest.size(), begun.size()));
            EXPECT_EQ(begun, rest) << where << ", LS " << lsId << ", cut short";
        }
    }
    if (life.whole) {
        EXPECT_TRUE(!told.empty() && told.back().now == newestView()) << life.name << " did not see the last view";
        checkReleases(life);
    }
}

uint64_t ClusterRecord::releasesOf(const NodeLife &life) const
{
    uint64_t count = 0;
    for (const Chapter &chapter : chapters(life)) {
        for (const auto &[lsId, releases] : expected(chapter).releases) {
            count += releases;
        }
    }
    return count;
}

void ClusterRecord::checkReleases(const NodeLife &life) const
{
    std::map<uint32_t, uint64_t> due;
    for (const Chapter &chapter : chapters(life)) {
        for (const auto &[lsId, releases] : expected(chapter).releases) {
            due[lsId] += releases;
        }
    }
    std::map<uint32_t, uint64_t> made;
    std::map<uint32_t, uint64_t> locks = life.locksHeld;
    for (const json &event : life.events) {
        if (isEvent(event, "NLM", "LOCKS_RELEASED")) {
            const auto lsId = static_cast<uint32_t>(dataOf(event));
            ++made[lsId];
            locks[lsId] += std::stoull(event.at("text").get<std::string>());
        }
    }
    std::erase_if(locks, [](const auto &each) { return each.second == 0; });
    EXPECT_EQ(made, due) << life.name << ": releases of the clients' locks";
    EXPECT_EQ(locks, life.locksTaken) << life.name << ": locks that are held or were released, and that were taken";
}

} // namespace integration
