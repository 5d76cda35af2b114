// The destination of a command's output, and a buffer for it. Documents of any size are written piece by piece and
// never held as a whole.
#pragma once

#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>

namespace kavstat {

// Takes bytes: standard output, a client's connection, a string.
class Sink
{
public:
    virtual ~Sink() = default;
    // Returns false if the bytes could not be written; it is not called again then.
    virtual bool take(std::string_view bytes) = 0;
};

// A descriptor, standard output in most cases; not owned.
class DescriptorSink : public Sink
{
public:
    explicit DescriptorSink(int descriptor) : m_descriptor(descriptor) {}
    bool take(std::string_view bytes) override;
    // errno of the write that failed, or 0.
    int error() const { return m_error; }

private:
    int m_descriptor;
    int m_error = 0;
};

class StringSink : public Sink
{
public:
    bool take(std::string_view bytes) override
    {
        m_text.append(bytes);
        return true;
    }
    const std::string& text() const { return m_text; }

private:
    std::string m_text;
};

class Output
{
public:
    // sink: outlives this object. capacity: bytes that are collected before they are passed to the sink.
    explicit Output(Sink& sink, std::size_t capacity = 65536) : m_sink(sink), m_capacity(capacity)
    {
        m_buffer.reserve(capacity);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void add(std::string_view text)
    {
        if (m_buffer.size() + text.size() > m_capacity) {
            flush();
        }
        m_buffer.append(text);
    }
    void add(char letter) { add(std::string_view(&letter, 1)); }
    void add_number(long long value)
    {
        char digits[24];
        const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
        add(std::string_view(digits, static_cast<std::size_t>(end - digits)));
    }

    // Passes the collected bytes to the sink. Returns false if the sink has refused any bytes so far.
    bool flush();
    // Discards the collected bytes and all further ones, because they turned out to be invalid.
    void give_up()
    {
        m_b_ok = false;
        m_buffer.clear();
    }
    // Whether the sink has accepted everything so far; otherwise further output is lost.
    bool is_ok() const { return m_b_ok; }

private:
    Sink& m_sink;
    std::size_t m_capacity;
    std::string m_buffer;
    bool m_b_ok = true;
};

} // namespace kavstat
