// The answer to a client: a text, or a document that is made while it is sent.
#pragma once

#include "format/document.h"
#include "format/output.h"
#include "serve/moments.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace kavstat {

inline constexpr const char* plain_type = "text/plain; charset=utf-8";
inline constexpr const char* json_type = "application/json";

struct HttpAnswer
{
    unsigned int status = 200;
    const char* type = plain_type; // of the body
    std::string text;              // the body, unless `make` is set
    std::string_view lasting_text; // the body instead, when it lives as long as the program
    // Content-Security-Policy: what a browser may do with the body.
    const char* policy = "default-src 'none'; frame-ancestors 'none'";

    // Makes the body while it is sent. The output and this function outlive the document. Not called for a HEAD
    // request.
    std::function<Document(Output&)> make;
    // The moment that the document reads from. The server keeps it, and cuts the answer off to free the moment.
    std::shared_ptr<Moment> moment;
};

inline HttpAnswer text_answer(unsigned int status, std::string text, const char* type = plain_type)
{
    HttpAnswer answer;
    answer.status = status;
    answer.type = type;
    answer.text = std::move(text);
    return answer;
}

// make: makes the document of a moment, for an output. moment: null for the head of an answer.
template <typename Make>
HttpAnswer document_answer(const char* type, std::shared_ptr<Moment> moment, Make make)
{
    HttpAnswer answer;
    answer.type = type;
    answer.make = [of = moment.get(), make = std::move(make)](Output& output) { return make(*of, output); };
    answer.moment = std::move(moment);
    return answer;
}

// {"error": reason}
HttpAnswer json_error_answer(unsigned int status, const std::string& reason);

} // namespace kavstat
