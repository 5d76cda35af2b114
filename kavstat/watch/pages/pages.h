// The contents of the pages of the live view. pages.cpp lists all pages.
#pragma once

#include "watch/page.h"

namespace kavstat {

WatchTable peers_table(const WatchModel& model, const WatchFrame& frame);
// "192.0.2.10:50000"
std::string end_text(std::uint32_t ip, std::uint16_t port);
WatchTable connections_table(const WatchModel& model, const WatchFrame& frame);
std::vector<WatchLine> connections_heading(const WatchModel& model, const WatchFrame& frame);
WatchTable applications_table(const WatchModel& model, const WatchFrame& frame);
WatchTable nacks_table(const WatchModel& model, const WatchFrame& frame);
WatchTable bypass_table(const WatchModel& model, const WatchFrame& frame);
std::vector<WatchLine> bypass_heading(const WatchModel& model, const WatchFrame& frame);
WatchTable config_table(const WatchModel& model, const WatchFrame& frame);
WatchTable counters_table(const WatchModel& model, const WatchFrame& frame);

// Makes the page of one peer, connection or application.
WatchTable subject_table(const WatchModel& model, const WatchSubject& subject, const WatchFrame& frame);
std::vector<WatchLine> subject_heading(const WatchModel& model, const WatchSubject& subject, const WatchFrame& frame);
std::string title_of(const WatchModel& model, const WatchSubject& subject);

std::unique_ptr<WatchPage> make_overview_page();

} // namespace kavstat
