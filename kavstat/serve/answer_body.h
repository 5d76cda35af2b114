// The body of an answer, made or compressed while it is sent.
#pragma once

#include "format/document.h"
#include "serve/http_answer.h"
#include "serve/negotiation.h"

#include <memory>
#include <string>
#include <string_view>

namespace kavstat {

class AnswerBody : private Sink
{
public:
    // Throws std::bad_alloc.
    AnswerBody(HttpAnswer answer, ContentCoding coding);
    ~AnswerBody() override;
    AnswerBody(const AnswerBody&) = delete;
    AnswerBody& operator=(const AnswerBody&) = delete;

    // The moment that it reads from, or null.
    const Moment* moment() const { return m_answer.moment.get(); }
    // Whether all statistics that were read are valid: they may have been truncated during the read.
    bool is_whole() const { return m_output.is_ok(); }
    // Writes at most `room` bytes and returns their number; 0 at the end.
    std::size_t read(char* bytes, std::size_t room);

private:
    class Gzip;
    static constexpr std::size_t made_at_once = 4096;

    void make_rest();
    bool take(std::string_view bytes) override;

    HttpAnswer m_answer;
    std::unique_ptr<Gzip> m_gzip; // null when the body is not compressed
    std::string_view m_rest;      // was made and has not been taken
    std::string m_piece;
    Output m_output{*this, made_at_once};
    Document m_document;
    bool m_b_more = true;
};

} // namespace kavstat
