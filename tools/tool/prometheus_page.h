#pragma once

#include <boost/json/fwd.hpp>
#include <string>

namespace orvex::tool {

/// Counters in Prometheus' text format, 0.0.4. A counter of the vocabulary is a metric named after its pattern,
/// explained by its sentence; what stands for a `*` is a label: "com.kelvar.orvexd.lumisk.keystrokes" is
/// `orvexd_keystrokes_total{client="lumisk"}`. What goes up and down is a gauge, without `_total`. A name that the
/// vocabulary has not is a label of `orvexd_counter_total`.
[[nodiscard]] std::string prometheusPage(const boost::json::value& counters);

}  // namespace orvex::tool
