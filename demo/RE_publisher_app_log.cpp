// The part of the publisher that writes the top-application log.
#include "RE_output_file.h"
#include "RE_published_app.h"
#include "RE_publisher.h"
#include "RE_top_app_log_writer.h"

#include <cstdio>

void RE_publisher::append_app_log(const std::string& path)
{
    std::vector<RE_top_app_log_name> names;
    for (const RE_application& application : all_applications()) {
        RE_top_app_log_name name{};
        name.handler = application.handler;
        std::snprintf(name.names.m_policy_engine_application_name, sizeof name.names.m_policy_engine_application_name,
                      "%s", application.name);
        std::snprintf(name.names.m_policy_engine_classifier_name, sizeof name.names.m_policy_engine_classifier_name,
                      "%s", application.classifier);
        names.push_back(name);
    }
    // In slot order, so that reports group the log's records in the same way as the live records.
    std::map<int, RE_published_app*> by_slot;
    for (const auto& [key, app] : m_apps) {
        if (app->slot >= 0 && app->has_news()) {
            by_slot[app->slot] = app.get();
        }
    }
    std::vector<RE_stat_app_struct> records;
    records.reserve(by_slot.size());
    for (const auto& [slot, app] : by_slot) {
        records.push_back(app->take_log_record());
    }
    if (records.empty()) {
        return;
    }
    const int result = append_top_app_log(path, names, records);
    if (result != 0) {
        fail_with_file(result, "cannot append to ", path);
    }
}
