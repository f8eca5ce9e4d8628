#include "tools/tool/prometheus_page.h"

#include <fmt/format.h>

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <map>
#include <string_view>
#include <vector>

#include "core/counter_vocabulary.h"
#include "core/json.h"

namespace orvex::tool {
namespace {

using Kind = CounterMeaning::Kind;

/// The samples of one metric, which stand together below what explains them.
struct Metric {
    std::string_view help;
    std::string_view type = "counter";
    std::vector<std::string> samples;
};

bool isAlphanumeric(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

/// Letters, digits and single underscores between them.
std::string metricName(const CounterMeaning& meaning) {
    std::string name = "orvexd";
    bool begins = true;
    for (const char c : meaning.pattern) {
        if (!isAlphanumeric(c)) {
            begins = true;
            continue;
        }
        if (begins) name += '_';
        begins = false;
        name += c;
    }
    return meaning.kind == Kind::level ? name : name + "_total";
}

std::string label(std::string_view name, std::string_view value) {
    std::string escaped;
    for (const char c : value) {
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return fmt::format("{}=\"{}\"", name, escaped);
}

std::string labels(const KnownCounter& known) {
    if (known.parts.empty()) return {};
    std::string inner = label(known.meaning->firstPart, known.parts.front());
    if (known.parts.size() > 1) inner += ',' + label(known.meaning->secondPart, known.parts[1]);
    return '{' + inner + '}';
}

}  // namespace

std::string prometheusPage(const boost::json::value& counters) {
    std::map<std::string, Metric> metrics;
    for (const auto& [key, value] : counters.as_object()) {
        const auto number = decimalFromJSON(value).value_or("0");
        const auto known = knownCounter(key);
        const std::string name = known ? metricName(*known->meaning) : "orvexd_counter_total";
        auto& metric = metrics[name];
        metric.help = known ? known->meaning->sentence : "a counter that this program does not know";
        if (known && known->meaning->kind == Kind::level) metric.type = "gauge";
        const std::string labelled = known ? labels(*known) : '{' + label("name", std::string_view(key)) + '}';
        metric.samples.push_back(fmt::format("{}{} {}\n", name, labelled, number));
    }
    std::string page;
    for (const auto& [name, metric] : metrics) {
        page += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", name, metric.help, metric.type);
        for (const auto& sample : metric.samples) page += sample;
    }
    return page;
}

}  // namespace orvex::tool
