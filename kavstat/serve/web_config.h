// The file that protects the server, with the keys of Prometheus' web configuration: TLS, and users with passwords.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kavstat {

enum class ClientCertificate
{
    none,               // NoClientCert
    request,            // RequestClientCert
    require_any,        // RequireAnyClientCert
    verify_if_given,    // VerifyClientCertIfGiven
    require_and_verify, // RequireAndVerifyClientCert
};

struct WebConfig
{
    std::string cert_file; // in PEM, with its chain; empty without TLS
    std::string key_file;
    std::string client_ca_file;
    ClientCertificate client_certificate = ClientCertificate::none;
    std::string min_version = "TLS12";
    std::string max_version = "TLS13";
    std::map<std::string, std::string> users; // bcrypt hashes of passwords by name

    bool has_tls() const { return !cert_file.empty(); }
    // Whether a client needs a password, or a certificate of a known authority.
    bool has_authentication() const
    {
        return !users.empty() || client_certificate == ClientCertificate::require_and_verify;
    }
};

// Reads the file. Relative paths in it start from its folder. Returns false with a reason, which contains the line of
// the mistake.
bool read_web_config(const std::string& path, WebConfig& config, std::string& reason);

// Returns warnings for the administrator about the permissions of the files.
std::vector<std::string> warnings_about(const std::string& path, const WebConfig& config);

} // namespace kavstat
