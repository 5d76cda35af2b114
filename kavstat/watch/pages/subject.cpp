// The page of one peer, connection or application.
#include "format/text.h"
#include "format/units.h"
#include "model/words.h"
#include "watch/figures.h"
#include "watch/pages/counters.h"
#include "watch/pages/pages.h"

#include <algorithm>

namespace kavstat {

namespace {

std::string peer_text(const WatchModel& model, int number)
{
    const std::string host = model.host_of(number);
    return "peer " + std::to_string(number) + (host.empty() ? "" : " " + host);
}

std::string title_of(const WatchPeer& peer)
{
    const RE_stat_peer_header& header = peer.now->header;
    const std::string host = plain_text(text_in(header.m_peer_host_name));
    return "Peer " + std::to_string(peer.now->number) + (host.empty() ? "" : " " + host) + ", " +
           header.m_peer_mac_id.getString() + (header.m_peer_ip != 0 ? ", " + ip_text(header.m_peer_ip) : "") + ", " +
           plural_text(peer.now->active_connections, "connection") + " open" +
           (header.m_b_outdated != 0 ? ", outdated" : "");
}

std::string title_of(const WatchModel& model, const SnapshotConn& conn)
{
    const RE_stat_conn_header& header = conn.header;
    return "Connection " + std::to_string(header.m_conn_id) + ", " +
           end_text(header.m_client_ip, header.m_client_port) + " to " +
           end_text(header.m_server_ip, header.m_server_port) + ", " + peer_text(model, conn.peer_number) + ", " +
           (conn.is_open() ? "open since " + date_and_time(conn.open_time)
                           : "closed at " + date_and_time(conn.close_time));
}

std::string title_of(const WatchModel& model, const WatchApp& app)
{
    return "Application " + application_label(app.now->app.m_header) + " with " +
           (app.now->peer_number >= 0 ? peer_text(model, app.now->peer_number)
                                      : app.now->app.m_header.m_kav_peer_id.getString()) +
           ", opened " + plural_text(app.now->app.m_header.m_open_cnt, "time");
}

} // namespace

std::string title_of(const WatchModel& model, const WatchSubject& subject)
{
    switch (subject.kind) {
    case SubjectKind::peer:
        if (const WatchPeer* const peer = model.find_peer(subject)) {
            return title_of(*peer);
        }
        return "Peer " + std::to_string(subject.number) + " is gone";
    case SubjectKind::connection:
        if (const FollowedThing* const conn = model.find_followed(subject); conn != nullptr && conn->b_there) {
            return title_of(model, conn->now);
        }
        return "Connection " + std::to_string(subject.number) + " is gone";
    case SubjectKind::application:
        if (const WatchApp* const app = model.find_app(subject)) {
            return title_of(model, *app);
        }
        break;
    default:
        break;
    }
    return "Application " + std::to_string(subject.number) + " is gone";
}

std::vector<WatchLine> subject_heading(const WatchModel& model, const WatchSubject& subject, const WatchFrame& frame)
{
    constexpr std::size_t indent = 2;
    std::vector<WatchLine> lines = wrapped_line({title_of(model, subject), WatchStyle::title}, frame.width, indent);
    for (const Finding* const finding : model.findings_about(subject)) {
        for (WatchLine& line : wrapped_line(finding_line(*finding), frame.width, indent)) {
            lines.push_back(std::move(line));
        }
        for (const std::string& line : wrapped(finding->rule->remedy, std::max(frame.width, indent + 1) - indent)) {
            lines.push_back({std::string(indent, ' ') + line});
        }
    }
    lines.resize(std::min(lines.size(), frame.height));
    const std::size_t most = frame.height - lines.size();
    std::vector<WatchFigure> figures;
    if (const WatchPeer* const peer = model.find_peer(subject)) {
        figures = traffic_figures(peer->rates, peer->history, model.has_rates(), &peer->now->connections);
    } else if (const FollowedThing* const thing = model.find_followed(subject)) {
        const bool b_connection = subject.kind == SubjectKind::connection;
        figures = traffic_figures(thing->rates, thing->history, model.has_rates() && thing->b_there,
                                  b_connection ? &thing->now.figures : nullptr);
        if (!b_connection) {
            figures.pop_back(); // applications have no counter of NACKs
        }
    }
    if (most > 0) {
        const std::vector<WatchLine> rows = figure_lines(figures, frame.width, most, frame.b_unicode);
        lines.insert(lines.end(), rows.begin(), rows.end());
    }
    return lines;
}

WatchTable subject_table(const WatchModel& model, const WatchSubject& subject, const WatchFrame& frame)
{
    std::vector<CounterRow> rows;
    // NaN without data for a rate.
    const auto rate_between = [&](const auto* before, const auto& now) {
        return [&model, before, &now](std::size_t id) {
            return before != nullptr ? model.rate((*before)[id], now[id]) : std::nan("");
        };
    };
    if (const WatchPeer* const peer = model.find_peer(subject)) {
        const SnapshotPeer* const before = peer->before;
        add_counters(rows, CounterScope::peer, "peer", peer->now->figures,
                     rate_between(before != nullptr ? &before->figures : nullptr, peer->now->figures));
        add_counters(rows, CounterScope::connection, "connections", peer->now->connections,
                     rate_between(before != nullptr ? &before->connections : nullptr, peer->now->connections));
    } else if (const WatchApp* const app = model.find_app(subject)) {
        const auto& now = app->now->app.m_id_array;
        add_counters(rows, CounterScope::application, "application", now, [&](std::size_t id) {
            return app->before != nullptr ? model.rate_32(app->before->app.m_id_array[id], now[id]) : std::nan("");
        });
    } else if (const FollowedThing* const conn = model.find_followed(subject); conn != nullptr && conn->b_there) {
        add_counters(rows, CounterScope::connection, "connection", conn->now.figures,
                     rate_between(conn->before ? &conn->before->figures : nullptr, conn->now.figures));
    }
    return table_of_counters(std::move(rows), model.now().capture_time, frame);
}

} // namespace kavstat
