#include "collector/otlp/setup.h"

#include <cstdio>

#include "collector/agent_config.h"

namespace varnix::agent {

bool otlp_url(const std::string& option, const char* cfg, std::string& url) {
    url = option;
    if (url.empty()) url = optional_token(cfg, "VARNIX_AGENT", "OTLP_URL");
    while (!url.empty() && url.back() == '/') url.pop_back();
    if (url.empty() || url.starts_with("http://") || url.starts_with("https://")) return true;
    std::fprintf(stderr, "varnix-agent: the OTLP receiver %s is not an http:// or https:// URL\n", url.c_str());
    return false;
}

std::unique_ptr<OtlpExporter> start_exporter(const std::string& url) {
    ExportConfig config;
    config.url = url;
    auto exporter = std::make_unique<OtlpExporter>(config);
    if (!exporter->start()) return nullptr;
    std::fprintf(stderr, "varnix-agent: exporting spans to %s/v1/traces and log records to %s/v1/logs\n", url.c_str(),
                 url.c_str());
    return exporter;
}

}  // namespace varnix::agent
