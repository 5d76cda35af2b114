// kavstat json and kavstat schema.
#include "commands/commands.h"
#include "commands/recorded.h"
#include "commands/report_error.h"
#include "commands/stop_signals.h"
#include "documents/schemas.h"
#include "format/json_writer.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace kavstat {

namespace {

// Writes JSON on one line. JSON contains line breaks only between values.
class LineSink : public Sink
{
public:
    explicit LineSink(Sink& sink) : m_sink(sink) {}
    bool take(std::string_view bytes) override
    {
        m_line.assign(bytes);
        std::erase(m_line, '\n');
        return m_sink.take(m_line);
    }
    bool end_line() { return m_sink.take("\n"); }

private:
    Sink& m_sink;
    std::string m_line; // kept for its memory
};

void write_error_line(int error, Output& output)
{
    JsonWriter json(output);
    json.begin_object();
    json.member("kavstat_json", json_version);
    json.member("capture_time", std::time(nullptr));
    json.member_text("error", Source::reason_of(error));
    json.end_object();
}

// Writes a document, or the reason why there is none, on one line. Returns false if the output failed.
bool write_line(const JsonOptions& options, Sink& sink)
{
    Source source; // opened again for each line, to find an engine that was restarted
    LineSink line(sink);
    Output output(line);
    if (const int error = source.open()) {
        write_error_line(error, output);
    } else {
        write_statistics_json(source, options.scopes, std::time(nullptr), output);
    }
    // A truncated line stays as it is. It is not valid JSON, so that readers skip it.
    const bool b_taken = output.flush() || source.reader().is_cut();
    return b_taken && line.end_line();
}

int write_lines(const JsonOptions& options)
{
    using clock = std::chrono::steady_clock;
    const auto interval = std::chrono::duration<double>(*options.interval);
    DescriptorSink sink(STDOUT_FILENO);
    end_at_signals();
    auto next = clock::now();
    while (!is_stopped()) {
        if (!write_line(options, sink)) {
            Output output(sink);
            output.give_up();
            return finish_output(output, sink);
        }
        // Do not catch up after a slow reader.
        next = std::max(next + std::chrono::duration_cast<clock::duration>(interval), clock::now());
        sleep_unless_stopped(std::chrono::duration<double>(next - clock::now()).count());
    }
    return EXIT_OK;
}

// One sample, or a line for each of a span.
int write_recorded(const JsonOptions& options)
{
    RecordedHistory history;
    if (const std::string reason = history.open(*options.history.file); !reason.empty()) {
        report_error(reason);
        return EXIT_NO_STATISTICS;
    }
    std::vector<HistorySample> samples;
    const bool b_lines = options.history.is_span();
    if (b_lines) {
        samples = history.reader().samples(options.history.span);
        if (!history.reader().error().empty()) {
            report_error(*options.history.file + ": " + history.reader().error());
            return EXIT_NO_STATISTICS;
        }
    } else if (const std::optional<HistorySample> sample = history.find(options.history.at)) {
        samples.push_back(*sample);
    } else {
        report_error(history.error());
        return EXIT_NO_STATISTICS;
    }
    DescriptorSink sink(STDOUT_FILENO);
    LineSink line(sink);
    Output output(b_lines ? static_cast<Sink&>(line) : sink);
    for (const HistorySample& sample : samples) {
        const std::unique_ptr<Source> source = history.source(sample);
        if (source == nullptr) {
            report_error(history.error());
            return EXIT_NO_STATISTICS;
        }
        write_statistics_json(*source, options.scopes, sample.time, output);
        if (!output.flush() || (b_lines && !line.end_line())) {
            break;
        }
    }
    return finish_output(output, sink);
}

} // namespace

int run_json(const JsonOptions& options)
{
    if (options.history.file) {
        return write_recorded(options);
    }
    if (options.interval) {
        return write_lines(options);
    }
    Source source(options.file);
    if (const int status = open_or_report(source)) {
        return status;
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    write_statistics_json(source, options.scopes, std::time(nullptr), output);
    if (const int status = report_if_cut(source)) {
        return status;
    }
    return finish_output(output, sink);
}

int run_schema(const std::string& document)
{
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    output.add(schema_of(document));
    return finish_output(output, sink);
}

} // namespace kavstat
