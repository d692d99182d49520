// Which OTLP receiver the agent exports to: `--otlp URL`, else the key
// OTLP_URL of the configuration's section VARNIX_AGENT, else none.
#pragma once

#include <memory>
#include <string>

#include "collector/otlp/exporter.h"

namespace varnix::agent {

// The base URL asked for ("" for none); false, with a line on standard
// error, when it is not an http:// or https:// URL.
bool otlp_url(const std::string& option, const char* cfg, std::string& url);

// A started exporter for `url`, or null (said on standard error).
std::unique_ptr<OtlpExporter> start_exporter(const std::string& url);

}  // namespace varnix::agent
