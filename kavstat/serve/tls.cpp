#include "serve/tls.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace kavstat {

namespace {

constexpr unsigned int longest_chain = 16;
constexpr off_t longest_file = 1 << 20;
constexpr std::chrono::seconds longest_handshake{60};

// A certificate for servers alone does not identify a client, even from a known authority.
gnutls_typed_vdata_st client_purpose{
    GNUTLS_DT_KEY_PURPOSE_OID,
    reinterpret_cast<unsigned char*>(const_cast<char*>(GNUTLS_KP_TLS_WWW_CLIENT)),
    0,
};

gnutls_datum_t datum_of(const std::string& text)
{
    return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())), static_cast<unsigned int>(text.size())};
}

} // namespace

struct TlsCertificate::Loaded
{
    Loaded() = default;
    ~Loaded()
    {
        for (unsigned int at = 0; at < length; ++at) {
            gnutls_pcert_deinit(&chain.at(at));
        }
        if (key != nullptr) {
            gnutls_privkey_deinit(key);
        }
    }
    Loaded(const Loaded&) = delete;
    Loaded& operator=(const Loaded&) = delete;

    std::array<gnutls_pcert_st, longest_chain> chain{};
    unsigned int length = 0;
    gnutls_privkey_t key = nullptr;
};

bool read_tls_file(const std::string& path, std::string& text, std::string& reason)
{
    // Without waiting for the other end of a pipe: the thread that serves clients reads the file.
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat info
    {
    };
    if (file < 0 || fstat(file, &info) != 0) {
        reason = path + ": " + std::strerror(errno);
    } else if (!S_ISREG(info.st_mode) || info.st_size == 0 || info.st_size > longest_file) {
        reason = path + ": not a regular file of 1 byte to 1 MB";
    } else {
        text.resize(static_cast<std::size_t>(info.st_size));
        const ssize_t count = read(file, text.data(), text.size());
        reason = path + ": " + (count < 0 ? std::strerror(errno) : "truncated while it was read");
        close(file);
        return count == static_cast<ssize_t>(text.size());
    }
    if (file >= 0) {
        close(file);
    }
    return false;
}

TlsCertificate::Files TlsCertificate::look() const
{
    Files files{};
    stat(m_config.cert_file.c_str(), &files.cert);
    stat(m_config.key_file.c_str(), &files.key);
    return files;
}

bool TlsCertificate::is_same(const Files& one, const Files& other)
{
    const auto is_same_file = [](const struct stat& a, const struct stat& b) {
        return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size &&
               a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
               a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
    };
    return is_same_file(one.cert, other.cert) && is_same_file(one.key, other.key);
}

bool TlsCertificate::load(std::string& reason)
{
    m_files = look();
    std::string chain;
    std::string key;
    if (!read_tls_file(m_config.cert_file, chain, reason) || !read_tls_file(m_config.key_file, key, reason)) {
        return false;
    }
    auto loaded = std::make_shared<Loaded>();
    const gnutls_datum_t chain_bytes = datum_of(chain);
    const gnutls_datum_t key_bytes = datum_of(key);
    unsigned int length = longest_chain;
    int error = gnutls_pcert_list_import_x509_raw(loaded->chain.data(), &length, &chain_bytes, GNUTLS_X509_FMT_PEM, 0);
    if (error < 0) {
        reason = m_config.cert_file + ": " + gnutls_strerror(error);
        return false;
    }
    loaded->length = length;
    gnutls_privkey_init(&loaded->key);
    error = gnutls_privkey_import_x509_raw(loaded->key, &key_bytes, GNUTLS_X509_FMT_PEM, nullptr, 0);
    explicit_bzero(key.data(), key.size());
    if (error < 0) {
        reason = m_config.key_file + ": " + gnutls_strerror(error);
        return false;
    }
    // While a certificate is renewed, one of its files is still the old one for a moment.
    gnutls_pubkey_t public_key = nullptr;
    gnutls_pubkey_init(&public_key);
    std::array<unsigned char, 64> of_cert{};
    std::array<unsigned char, 64> of_key{};
    std::size_t cert_size = of_cert.size();
    std::size_t key_size = of_key.size();
    const bool b_ids = gnutls_pubkey_get_key_id(loaded->chain[0].pubkey, 0, of_cert.data(), &cert_size) == 0 &&
                       gnutls_pubkey_import_privkey(public_key, loaded->key, 0, 0) == 0 &&
                       gnutls_pubkey_get_key_id(public_key, 0, of_key.data(), &key_size) == 0;
    gnutls_pubkey_deinit(public_key);
    if (!b_ids || cert_size != key_size || of_cert != of_key) {
        reason = m_config.key_file + ": not the key of the certificate in " + m_config.cert_file;
        return false;
    }
    m_loaded.push_front(std::move(loaded));
    m_replaced = std::chrono::steady_clock::now();
    return true;
}

void TlsCertificate::find(gnutls_pcert_st*& chain, unsigned int& length, gnutls_privkey_t& key)
{
    // By now, the handshakes that began with an older certificate have ended.
    if (std::chrono::steady_clock::now() - m_replaced > longest_handshake && m_loaded.size() > 1) {
        m_loaded.resize(1);
    }
    if (!is_same(look(), m_files)) {
        std::string reason;
        m_report(load(reason) ? m_config.cert_file + ": the new certificate is in use"
                              : "the old certificate stays in use: " + reason);
    }
    Loaded& newest = *m_loaded.front();
    chain = newest.chain.data();
    length = newest.length;
    key = newest.key;
}

std::string tls_priorities(const WebConfig& config)
{
    std::string priorities = "NORMAL:-VERS-ALL";
    if (config.max_version == "TLS13") {
        priorities += ":+VERS-TLS1.3";
    }
    if (config.min_version == "TLS12") {
        priorities += ":+VERS-TLS1.2";
    }
    return priorities;
}

void demand_client_certificate(gnutls_session_t session, const WebConfig& config)
{
    const ClientCertificate demanded = config.client_certificate;
    if (demanded == ClientCertificate::none) {
        return;
    }
    const bool b_required =
        demanded == ClientCertificate::require_any || demanded == ClientCertificate::require_and_verify;
    gnutls_certificate_server_set_request(session, b_required ? GNUTLS_CERT_REQUIRE : GNUTLS_CERT_REQUEST);
    if (demanded == ClientCertificate::require_and_verify) {
        gnutls_session_set_verify_cert2(session, &client_purpose, 1, 0);
    } else if (demanded == ClientCertificate::verify_if_given) {
        gnutls_session_set_verify_function(session, [](gnutls_session_t of) {
            unsigned int count = 0;
            unsigned int status = 0;
            if (gnutls_certificate_get_peers(of, &count) == nullptr || count == 0) {
                return 0;
            }
            return gnutls_certificate_verify_peers(of, &client_purpose, 1, &status) == 0 && status == 0 ? 0 : -1;
        });
    }
}

} // namespace kavstat
