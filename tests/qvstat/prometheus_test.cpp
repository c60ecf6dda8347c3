// SPDX-License-Identifier: Apache-2.0
// The metrics of qvstat as Prometheus sees them: its checker, a real server that scrapes them, and what docs/ has for
// it. tools/setup fetches the programs; without them the tests are skipped.
#include "qvstat/processes.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>

using namespace support;
using nlohmann::json;

namespace {

const std::string kDocs = LIBCOMMON_DOCS;

// An empty variable counts as unset, as for shells' ":-".
std::string environment_or(const char *name, const std::string &otherwise)
{
    const char *value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

// Installed, or fetched by tools/setup.
std::optional<std::string> find_program(const std::string &name)
{
    const std::string fetched = environment_or("XDG_CACHE_HOME", environment_or("HOME", "/root") + "/.cache");
    for (const std::string &folder : {std::string("/usr/bin"), fetched + "/libcommon/prometheus"}) {
        if (access((folder + '/' + name).c_str(), X_OK) == 0)
            return folder + '/' + name;
    }
    return std::nullopt;
}

class PromtoolTest : public testing::Test {
protected:
    void SetUp() override
    {
        auto found = find_program("promtool");
        if (!found)
            GTEST_SKIP() << "no promtool: tools/setup metrics fetches it";
        promtool_ = *found;
    }

    std::string promtool_;
};

std::string metrics()
{
    return run_program({kQvstat, "--openmetrics"}).out;
}

TEST_F(PromtoolTest, AcceptsTheMetrics)
{
    Host first({"caches"}), second({"strange-names"});
    write_file("/tmp/metrics", metrics());
    ChildResult result = run_program({"/bin/sh", "-c", promtool_ + " check metrics </tmp/metrics"});
    EXPECT_TRUE(result.exited(0));
    EXPECT_EQ("", result.out + result.err);
}

TEST_F(PromtoolTest, AcceptsTheAlerts)
{
    ChildResult result = run_program({promtool_, "check", "rules", kDocs + "/fleet-alerts.yml"});
    EXPECT_TRUE(result.exited(0)) << result.out << result.err;
}

// ---- the dashboard ----

// All texts of a key, at any depth.
void collect(const json &in, const std::string &key, std::vector<std::string> *found)
{
    if (in.is_object() && in.contains(key) && in[key].is_string())
        found->push_back(in[key]);
    for (const json &each : in) {
        if (each.is_structured())
            collect(each, key, found);
    }
}

std::vector<std::string> texts_of_dashboard(const std::string &key)
{
    std::vector<std::string> found;
    collect(json::parse(read_file(kDocs + "/fleet-dashboard.json")), key, &found);
    EXPECT_FALSE(found.empty());
    return found;
}

std::set<std::string> metrics_named_in(const std::string &text)
{
    static const std::regex kName("libcommon_[a-z_]+");
    return {std::sregex_token_iterator(text.begin(), text.end(), kName), std::sregex_token_iterator()};
}

TEST_F(PromtoolTest, ParsesTheQueriesOfTheDashboard)
{
    json rules = json::array();
    for (const std::string &query : texts_of_dashboard("expr"))
        rules.push_back({{"record", "query:" + std::to_string(rules.size())}, {"expr", query}});
    // JSON is YAML.
    write_file("/tmp/rules", json{{"groups", {{{"name", "dashboard"}, {"rules", rules}}}}}.dump());
    ChildResult result = run_program({promtool_, "check", "rules", "/tmp/rules"});
    EXPECT_TRUE(result.exited(0)) << result.out << result.err;
}

TEST(Dashboard, AsksForMetricsThatExist)
{
    Host host({"caches"});
    std::set<std::string> samples = metrics_named_in(std::regex_replace(metrics(), std::regex("(^|\n)#[^\n]*"), ""));
    std::vector<std::string> asking = texts_of_dashboard("expr"), variables = texts_of_dashboard("query");
    asking.insert(asking.end(), variables.begin(), variables.end());
    asking.push_back(read_file(kDocs + "/fleet-alerts.yml"));
    for (const std::string &text : asking) {
        for (const std::string &name : metrics_named_in(text))
            EXPECT_EQ(1U, samples.count(name)) << name;
    }
}

// ---- a server ----

constexpr std::uint16_t kPrometheusPort = 9090;
const std::string kMetricsAddress = "127.0.0.1:9464";

// The result of a query by the server's interface; null while it does not answer.
json query(const std::string &expression)
{
    static const std::string kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    std::string escaped;
    for (char c : expression) {
        char code[4];
        std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
        escaped += kAllowed.find(c) != std::string::npos ? std::string(1, c) : code;
    }
    std::string answer =
        ask(kPrometheusPort, "GET /api/v1/query?query=" + escaped + " HTTP/1.0\r\nHost: localhost\r\n\r\n");
    json parsed = json::parse(answer.substr(std::min(answer.size(), answer.find("\r\n\r\n"))), nullptr, false);
    return parsed.is_object() && parsed.value("status", "") == "success" ? parsed["data"]["result"] : json();
}

TEST(Prometheus, ScrapesAKnownProcess)
{
    auto program = find_program("prometheus");
    if (!program)
        GTEST_SKIP() << "no prometheus: tools/setup metrics fetches it";
    if (!enter_own_network())
        GTEST_SKIP() << "no private network here";
    Host host({"caches"});
    Server server(kMetricsAddress);
    write_file("/tmp/prometheus.yml", "global: {scrape_interval: 10s, scrape_timeout: 10s}\n"
                                      "scrape_configs:\n"
                                      "  - job_name: libcommon\n"
                                      "    static_configs:\n"
                                      "      - targets: [\"" +
                                          kMetricsAddress + "\"]\n");
    mount_tmpfs("/tmp/data");
    Piped prometheus({"/bin/sh", "-c",
                      "exec " + *program +
                          " --config.file=/tmp/prometheus.yml --storage.tsdb.path=/tmp/data"
                          " --web.listen-address=127.0.0.1:" +
                          std::to_string(kPrometheusPort) + " 2>/tmp/log"});
    // The server looks for its targets five seconds after it started.
    json found;
    for (int i = 0; i < 1000 && found.empty() && prometheus.lives(); i++) {
        usleep(100000);
        found = query("libcommon_cache_objects{cache=\"sessions\",name=\"inspected_host\",pid=\"" + host.id() + "\"}");
    }
    ASSERT_EQ(1U, found.size()) << read_file("/tmp/log");
    EXPECT_EQ("200", found[0]["value"][1]);
    EXPECT_EQ(kMetricsAddress, found[0]["metric"]["instance"]);
    EXPECT_EQ(1U, query("libcommon_allocations_total{pid=\"" + host.id() + "\"} > 0").size());
}

} // namespace
