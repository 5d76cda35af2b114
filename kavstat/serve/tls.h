// The server's certificate, and the TLS settings of a session.
#pragma once

#include "serve/web_config.h"

#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>

namespace kavstat {

// A certificate with its key, loaded from files, and loaded again when the files change.
class TlsCertificate
{
public:
    using Report = std::function<void(const std::string&)>;

    // report: is called when the files have changed, with what came of it.
    TlsCertificate(const WebConfig& config, Report report) : m_config(config), m_report(std::move(report)) {}
    TlsCertificate(const TlsCertificate&) = delete;
    TlsCertificate& operator=(const TlsCertificate&) = delete;

    // Returns false with a reason when the files do not contain a certificate and its key.
    bool load(std::string& reason);
    // Gives a handshake the certificate of the files as they are now, or the last valid one. It stays valid for a
    // minute after the files have changed.
    void find(gnutls_pcert_st*& chain, unsigned int& length, gnutls_privkey_t& key);

private:
    struct Loaded;
    struct Files
    {
        struct stat cert;
        struct stat key;
    };

    Files look() const;
    static bool is_same(const Files& one, const Files& other);

    const WebConfig& m_config;
    Report m_report;
    Files m_files{};
    std::list<std::shared_ptr<Loaded>> m_loaded; // newest first
    std::chrono::steady_clock::time_point m_replaced;
};

// The TLS versions and algorithms, in the notation of GnuTLS.
std::string tls_priorities(const WebConfig& config);
// Demands a certificate of the client, if the configuration does. Called before the handshake.
void demand_client_certificate(gnutls_session_t session, const WebConfig& config);
// Reads a whole regular file of at most 1 MB. Returns false with a reason.
bool read_tls_file(const std::string& path, std::string& text, std::string& reason);

} // namespace kavstat
