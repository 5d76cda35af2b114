#include "serve/responses.h"

#include <strings.h>

#include <utility>

namespace kavstat {

MHD_Result send_response(MHD_Connection* connection, MHD_Response* response, const HttpAnswer& made,
                         ContentCoding coding)
{
    if (response == nullptr) {
        return MHD_NO;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, made.type);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    MHD_add_response_header(response, MHD_HTTP_HEADER_VARY, "Accept, Accept-Encoding");
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(response, "Content-Security-Policy", made.policy);
    MHD_add_response_header(response, "Cross-Origin-Resource-Policy", "same-origin");
    MHD_add_response_header(response, "Referrer-Policy", "no-referrer");
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    if (coding == ContentCoding::gzip) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip");
    }
    if (made.status == MHD_HTTP_UNAUTHORIZED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE,
                                "Basic realm=\"kavstat\", charset=\"UTF-8\"");
    }
    if (made.status == MHD_HTTP_TOO_MANY_REQUESTS) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_RETRY_AFTER, "1");
    }
    if (made.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    }
    const MHD_Result result = MHD_queue_response(connection, made.status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result send_text(MHD_Connection* connection, const HttpAnswer& made)
{
    const bool b_lasting = !made.lasting_text.empty();
    const std::string_view text = b_lasting ? made.lasting_text : made.text;
    void* const bytes = const_cast<char*>(text.data());
    return send_response(
        connection,
        MHD_create_response_from_buffer(text.size(), bytes, b_lasting ? MHD_RESPMEM_PERSISTENT : MHD_RESPMEM_MUST_COPY),
        made);
}

MHD_Result refuse(MHD_Connection* connection, unsigned int status, std::string reason)
{
    return send_text(connection, text_answer(status, std::move(reason)));
}

HeadFields::HeadFields(MHD_Connection* connection)
{
    const auto add = [](void* to, MHD_ValueKind, const char* key, const char* value) {
        static_cast<HeadFields*>(to)->add(key, value != nullptr ? value : "");
        return MHD_YES;
    };
    MHD_get_connection_values(connection, MHD_HEADER_KIND, add, this);
}

void HeadFields::add(const char* key, std::string_view value)
{
    if (strcasecmp(key, MHD_HTTP_HEADER_HOST) == 0) {
        hosts.emplace_back(value);
    } else if (strcasecmp(key, MHD_HTTP_HEADER_CONTENT_LENGTH) == 0) {
        b_body = b_body || value.find_first_not_of('0') != std::string_view::npos;
    } else if (strcasecmp(key, MHD_HTTP_HEADER_TRANSFER_ENCODING) == 0) {
        b_body = true;
    } else if (strcasecmp(key, MHD_HTTP_HEADER_AUTHORIZATION) == 0) {
        // Several of them are ambiguous and count as invalid.
        authorization = authorization ? "" : value;
    } else if (strcasecmp(key, MHD_HTTP_HEADER_ACCEPT) == 0) {
        accept.append(accept.empty() ? "" : ",").append(value);
    } else if (strcasecmp(key, MHD_HTTP_HEADER_ACCEPT_ENCODING) == 0) {
        accept_encoding.append(accept_encoding.empty() ? "" : ",").append(value);
    }
}

} // namespace kavstat
