#include "serve/answer_body.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace kavstat {

namespace {

constexpr std::size_t text_at_once = 65536; // compressed while other clients wait

} // namespace

// Compresses a text in pieces. Needs 70 KB: a small window is enough, because lines of metrics and JSON resemble the
// lines directly before them.
class AnswerBody::Gzip
{
public:
    Gzip()
    {
        if (deflateInit2(&m_stream, level, Z_DEFLATED, window_bits + gzip_form, memory_level, Z_DEFAULT_STRATEGY) !=
            Z_OK) {
            throw std::bad_alloc();
        }
    }
    ~Gzip() { deflateEnd(&m_stream); }
    Gzip(const Gzip&) = delete;
    Gzip& operator=(const Gzip&) = delete;

    struct Progress
    {
        std::size_t taken; // of the text
        std::size_t given;
    };
    // text: empty at the end of the document.
    Progress write(std::string_view text, char* bytes, std::size_t room)
    {
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        m_stream.avail_in = static_cast<uInt>(text.size());
        m_stream.next_out = reinterpret_cast<Bytef*>(bytes);
        m_stream.avail_out = static_cast<uInt>(room);
        m_b_finished = deflate(&m_stream, text.empty() ? Z_FINISH : Z_NO_FLUSH) == Z_STREAM_END;
        return {text.size() - m_stream.avail_in, room - m_stream.avail_out};
    }
    bool is_finished() const { return m_b_finished; }

private:
    static constexpr int level = 4;
    static constexpr int window_bits = 13;
    static constexpr int memory_level = 6;
    static constexpr int gzip_form = 16; // added to the window's bits

    z_stream m_stream{};
    bool m_b_finished = false;
};

AnswerBody::AnswerBody(HttpAnswer answer, ContentCoding coding)
    : m_answer(std::move(answer)), m_rest(m_answer.lasting_text.empty() ? m_answer.text : m_answer.lasting_text)
{
    if (m_answer.make) {
        m_document = m_answer.make(m_output);
    }
    if (coding == ContentCoding::gzip) {
        m_gzip = std::make_unique<Gzip>();
    }
}

AnswerBody::~AnswerBody() = default;

std::size_t AnswerBody::read(char* bytes, std::size_t room)
{
    std::size_t count = 0;
    if (m_gzip == nullptr) {
        for (make_rest(); count < room && !m_rest.empty(); make_rest()) {
            const std::size_t part = std::min(room - count, m_rest.size());
            std::memcpy(bytes + count, m_rest.data(), part);
            m_rest.remove_prefix(part);
            count += part;
        }
        return count;
    }
    // Other clients wait while the text for these bytes is made, and it may be a hundred times as long.
    std::size_t compressed = 0;
    while (count < room && !m_gzip->is_finished() && (count == 0 || compressed < text_at_once)) {
        make_rest();
        const auto [taken, given] = m_gzip->write(m_rest, bytes + count, room - count);
        m_rest.remove_prefix(taken);
        compressed += taken;
        count += given;
    }
    return count;
}

// Makes more text when everything made so far was taken. The rest stays empty at the end of the document.
void AnswerBody::make_rest()
{
    if (!m_rest.empty()) {
        return;
    }
    m_piece.clear();
    while (m_piece.empty() && m_b_more) {
        m_b_more = m_document.write_more();
    }
    if (!m_b_more) {
        m_output.flush();
    }
    m_rest = m_piece;
}

bool AnswerBody::take(std::string_view bytes)
{
    m_piece.append(bytes);
    return true;
}

} // namespace kavstat
