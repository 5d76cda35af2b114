#include "serve/web_config.h"

#include <yaml-cpp/yaml.h>

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>

namespace kavstat {

namespace {

// A password is verified in about 2^cost / 20000 seconds.
constexpr int highest_cost = 16;

class web_config_error : public std::runtime_error
{
public:
    web_config_error(const YAML::Mark& mark, const std::string& what)
        : std::runtime_error(mark.is_null() ? what : "line " + std::to_string(mark.line + 1) + ": " + what)
    {}
};

std::string text_of(const YAML::Node& node, const std::string& key)
{
    if (!node.IsScalar()) {
        throw web_config_error(node.Mark(), key + " is not a text");
    }
    return node.Scalar();
}

// Calls `use` with each key of a map and its value.
template <typename Use>
void for_each_key(const YAML::Node& map, const std::string& name, const Use& use)
{
    if (map.IsNull()) {
        return;
    }
    if (!map.IsMap()) {
        throw web_config_error(map.Mark(), name + " is not a map");
    }
    std::set<std::string> words;
    for (const auto& member : map) {
        const YAML::Node& key = member.first;
        const std::string word = text_of(key, "a key of " + name);
        if (!words.insert(word).second) {
            throw web_config_error(key.Mark(), word + " occurs twice");
        }
        use(word, member.second, key.Mark());
    }
}

ClientCertificate client_certificate_of(const YAML::Node& node)
{
    static const std::map<std::string, ClientCertificate> types{
        {"", ClientCertificate::none},
        {"NoClientCert", ClientCertificate::none},
        {"RequestClientCert", ClientCertificate::request},
        {"RequireAnyClientCert", ClientCertificate::require_any},
        {"VerifyClientCertIfGiven", ClientCertificate::verify_if_given},
        {"RequireAndVerifyClientCert", ClientCertificate::require_and_verify}};
    const auto found = types.find(text_of(node, "client_auth_type"));
    if (found == types.end()) {
        throw web_config_error(node.Mark(), "no such client_auth_type: \"" + node.Scalar() + "\"");
    }
    return found->second;
}

std::string version_of(const YAML::Node& node, const std::string& key)
{
    std::string version = text_of(node, key);
    if (version != "TLS12" && version != "TLS13") {
        throw web_config_error(node.Mark(), key + " is neither TLS12 nor TLS13");
    }
    return version;
}

std::string file_of(const YAML::Node& node, const std::string& key, const std::filesystem::path& folder)
{
    const std::string name = text_of(node, key);
    return name.empty() ? name : (folder / name).string();
}

void read_tls(const YAML::Node& tls, const std::filesystem::path& folder, WebConfig& config)
{
    for_each_key(tls, "tls_server_config",
                 [&](const std::string& key, const YAML::Node& value, const YAML::Mark& mark) {
                     if (key == "cert_file") {
                         config.cert_file = file_of(value, key, folder);
                     } else if (key == "key_file") {
                         config.key_file = file_of(value, key, folder);
                     } else if (key == "client_ca_file") {
                         config.client_ca_file = file_of(value, key, folder);
                     } else if (key == "client_auth_type") {
                         config.client_certificate = client_certificate_of(value);
                     } else if (key == "min_version") {
                         config.min_version = version_of(value, key);
                     } else if (key == "max_version") {
                         config.max_version = version_of(value, key);
                     } else {
                         throw web_config_error(mark, "tls_server_config." + key + " is not supported");
                     }
                 });
    const bool b_verifies = config.client_certificate == ClientCertificate::verify_if_given ||
                            config.client_certificate == ClientCertificate::require_and_verify;
    if (config.cert_file.empty() || config.key_file.empty()) {
        throw web_config_error(tls.Mark(), "tls_server_config needs cert_file and key_file");
    }
    if (b_verifies == config.client_ca_file.empty()) {
        throw web_config_error(tls.Mark(), b_verifies ? "this client_auth_type needs a client_ca_file"
                                                      : "client_ca_file needs a client_auth_type that verifies");
    }
    if (config.min_version > config.max_version) {
        throw web_config_error(tls.Mark(), "min_version is above max_version");
    }
}

// "$2y$10$" and 53 characters.
bool is_bcrypt_hash(const std::string& hash)
{
    constexpr std::string_view alphabet = "./ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    return hash.size() == 60 && (hash.starts_with("$2y$") || hash.starts_with("$2b$") || hash.starts_with("$2a$")) &&
           hash[6] == '$' && hash.find_first_not_of("0123456789", 4) == 6 &&
           hash.find_first_not_of(alphabet, 7) == std::string::npos;
}

void read_users(const YAML::Node& users, WebConfig& config)
{
    for_each_key(
        users, "basic_auth_users", [&](const std::string& name, const YAML::Node& value, const YAML::Mark& mark) {
            const std::string hash = value.IsScalar() ? value.Scalar() : "";
            if (name.empty() || name.find(':') != std::string::npos) {
                throw web_config_error(mark, "a user's name is empty or has a colon");
            }
            if (!is_bcrypt_hash(hash)) {
                throw web_config_error(value.Mark(), "the password of " + name + " is not a bcrypt hash, \"$2y$...\"");
            }
            const int cost = std::stoi(hash.substr(4, 2));
            if (cost < 4 || cost > highest_cost) {
                throw web_config_error(value.Mark(), "the cost of the hash of " + name + " is not 4 to " +
                                                         std::to_string(highest_cost));
            }
            config.users.emplace(name, hash);
        });
}

bool is_readable_by_all(const std::string& path)
{
    struct stat info
    {
    };
    return stat(path.c_str(), &info) == 0 && (info.st_mode & S_IROTH) != 0;
}

} // namespace

bool read_web_config(const std::string& path, WebConfig& config, std::string& reason)
{
    config = {};
    try {
        const std::filesystem::path folder = std::filesystem::absolute(path).parent_path();
        for_each_key(YAML::LoadFile(path), "the file",
                     [&](const std::string& key, const YAML::Node& value, const YAML::Mark& mark) {
                         if (key == "tls_server_config") {
                             read_tls(value, folder, config);
                         } else if (key == "basic_auth_users") {
                             read_users(value, config);
                         } else {
                             throw web_config_error(mark, key + " is not supported");
                         }
                     });
    } catch (const YAML::BadFile&) {
        reason = std::strerror(errno);
        return false;
    } catch (const YAML::Exception& error) {
        reason = web_config_error(error.mark, error.msg).what();
        return false;
    } catch (const std::exception& error) {
        reason = error.what();
        return false;
    }
    return true;
}

std::vector<std::string> warnings_about(const std::string& path, const WebConfig& config)
{
    std::vector<std::string> warnings;
    if (!config.users.empty() && is_readable_by_all(path)) {
        warnings.push_back("warning: " + path + ": every user of this machine can read the hashes of passwords");
    }
    if (config.has_tls() && is_readable_by_all(config.key_file)) {
        warnings.push_back("warning: " + config.key_file + ": every user of this machine can read the private key");
    }
    return warnings;
}

} // namespace kavstat
