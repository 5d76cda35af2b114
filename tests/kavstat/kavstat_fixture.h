// What the tests of kavstat share: a small engine whose statistics are read into documents.
#pragma once

#include "../core/engine_fixture.h"
#include "RE_metrics.h"
#include "RE_statistics_json.h"

#include <nlohmann/json.hpp>

class kavstat_test : public engine_test
{
protected:
    static constexpr std::time_t now = 1700000900;

    std::string json_text(RE_source& source, const RE_json_scopes& scopes = {})
    {
        EXPECT_EQ(source.open(), 0);
        RE_string_sink sink;
        RE_output output(sink);
        write_statistics_json(source, scopes, now, output);
        EXPECT_TRUE(output.flush());
        return sink.text();
    }
    nlohmann::json json(const RE_json_scopes& scopes = {})
    {
        RE_source source;
        return nlohmann::json::parse(json_text(source, scopes));
    }
    std::string metrics()
    {
        RE_source source;
        EXPECT_EQ(source.open(), 0);
        RE_string_sink sink;
        RE_output output(sink);
        write_metrics_of(source.reader(), now, output);
        EXPECT_TRUE(output.flush());
        return sink.text();
    }
    RE_snapshot snapshot(std::time_t moment = now)
    {
        RE_source source;
        EXPECT_EQ(source.open(), 0);
        return take_snapshot(source.reader(), moment);
    }
};
