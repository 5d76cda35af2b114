// Shared by the tests of kavstat: a small engine with statistics that are read into documents.
#pragma once

#include "documents/metrics.h"
#include "documents/statistics_json.h"
#include "model/counter_names.h"
#include "support/engine_fixture.h"

#include <nlohmann/json.hpp>

using namespace kavstat;

class kavstat_test : public engine_test
{
protected:
    static constexpr std::time_t now = 1700000900;

    std::string json_text(Source& source, const JsonScopes& scopes = {})
    {
        EXPECT_EQ(source.open(), 0);
        StringSink sink;
        Output output(sink);
        write_statistics_json(source, scopes, now, output);
        EXPECT_TRUE(output.flush());
        return sink.text();
    }
    nlohmann::json json(const JsonScopes& scopes = {})
    {
        Source source;
        return nlohmann::json::parse(json_text(source, scopes));
    }
    std::string metrics(const MetricsChoice& choice = {})
    {
        Source source;
        EXPECT_EQ(source.open(), 0);
        StringSink sink;
        Output output(sink);
        write_metrics_of(source.reader(), now, output, choice);
        EXPECT_TRUE(output.flush());
        return sink.text();
    }
    Snapshot snapshot(std::time_t moment = now)
    {
        Source source;
        EXPECT_EQ(source.open(), 0);
        return take_snapshot(source.reader(), moment);
    }
};
