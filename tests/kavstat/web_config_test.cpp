// The file that protects the server, and passwords.
#include "serve/passwords.h"
#include "serve/web_config.h"
#include "support/files.h"
#include "support/system_test.h"

#include <condition_variable>
#include <mutex>

using namespace kavstat;

namespace {

// "secret"
constexpr const char* hash_of_secret = "$2y$04$KBCwKxOzLha2MUDgW0PjXe/hE/UCO9qF89dOydoHjSwxcHev5LRn.";

class web_config : public system_test
{
protected:
    std::string reason_for(const std::string& text)
    {
        write_file(path("web.yml"), text);
        WebConfig config;
        std::string reason;
        return read_web_config(path("web.yml"), config, reason) ? "none" : reason;
    }
};

} // namespace

TEST_F(web_config, has_the_keys_of_prometheus)
{
    write_file(path("web.yml"), std::string("tls_server_config:\n"
                                            "  cert_file: a.crt\n"
                                            "  key_file: /etc/a.key\n"
                                            "  client_ca_file: ca.crt\n"
                                            "  client_auth_type: RequireAndVerifyClientCert\n"
                                            "  min_version: TLS13\n"
                                            "basic_auth_users:\n"
                                            "  alice: ") +
                                    hash_of_secret + "\n");
    WebConfig config;
    std::string reason;
    ASSERT_TRUE(read_web_config(path("web.yml"), config, reason)) << reason;
    EXPECT_EQ(config.cert_file, path("a.crt"));
    EXPECT_EQ(config.key_file, "/etc/a.key");
    EXPECT_EQ(config.client_ca_file, path("ca.crt"));
    EXPECT_EQ(config.client_certificate, ClientCertificate::require_and_verify);
    EXPECT_EQ(config.min_version, "TLS13");
    EXPECT_EQ(config.users.at("alice"), hash_of_secret);
    EXPECT_TRUE(config.has_tls());
    EXPECT_TRUE(config.has_authentication());
    EXPECT_EQ(reason_for(""), "none");
}

TEST_F(web_config, tells_the_line_of_a_mistake)
{
    const std::string tls = "tls_server_config:\n  cert_file: a\n  key_file: b\n";
    const std::vector<std::pair<std::string, std::string>> mistakes = {
        {"- a\n", "line 1: the file is not a map"},
        {"a: [\n", "line 2: end of sequence flow not found"},
        {"\nhttp_server_config:\n  http2: true\n", "line 2: http_server_config is not supported"},
        {tls + "  cipher_suites: [a]\n", "line 4: tls_server_config.cipher_suites is not supported"},
        {tls + "  min_version: TLS10\n", "line 4: min_version is neither TLS12 nor TLS13"},
        {tls + "  min_version: TLS13\n  max_version: TLS12\n", "line 2: min_version is above max_version"},
        {tls + "  client_auth_type: Always\n", "line 4: no such client_auth_type: \"Always\""},
        {tls + "  client_auth_type: VerifyClientCertIfGiven\n", "line 2: this client_auth_type needs a client_ca_file"},
        {tls + "  client_ca_file: c\n", "line 2: client_ca_file needs a client_auth_type that verifies"},
        {tls + "  key_file: c\n", "line 4: key_file occurs twice"},
        {"tls_server_config:\n  cert_file: a\n", "line 2: tls_server_config needs cert_file and key_file"},
        {"basic_auth_users:\n  alice: secret\n", "line 2: the password of alice is not a bcrypt hash, \"$2y$...\""},
        {"basic_auth_users:\n  alice: $2y$31$" + std::string(hash_of_secret).substr(7) + "\n",
         "line 2: the cost of the hash of alice is not 4 to 16"},
        {"basic_auth_users:\n  \"a:b\": x\n", "line 2: a user's name is empty or has a colon"}};
    for (const auto& [text, reason] : mistakes) {
        EXPECT_EQ(reason_for(text), reason) << text;
    }
    WebConfig config;
    std::string reason;
    EXPECT_FALSE(read_web_config(path("none"), config, reason));
    EXPECT_EQ(reason, "No such file or directory");
}

TEST(basic_authorization, is_a_name_and_a_password)
{
    // base64 of "alice:secret", "alice:", ":" and "a:b:c".
    EXPECT_EQ(parse_basic_authorization("Basic YWxpY2U6c2VjcmV0")->user, "alice");
    EXPECT_EQ(parse_basic_authorization("bAsIc  YWxpY2U6c2VjcmV0")->password, "secret");
    EXPECT_EQ(parse_basic_authorization("Basic YWxpY2U6")->password, "");
    EXPECT_EQ(parse_basic_authorization("Basic Og==")->user, "");
    EXPECT_EQ(parse_basic_authorization("Basic YTpiOmM=")->password, "b:c");
    // Also base64 of "alice", and of "a:" with a NUL.
    for (const char* const field : {"", "Basic", "Basic ", "Bearer YWxpY2U6c2VjcmV0", "Basic YWxpY2U6c2VjcmV",
                                    "Basic YWxpY2U=", "Basic YWxp*2U6", "Basic YToA", "Basic ====", "Basic Og==Og=="}) {
        EXPECT_FALSE(parse_basic_authorization(field)) << field;
    }
}

TEST(passwords, are_verified_elsewhere_and_known_from_then_on)
{
    std::mutex mutex;
    std::condition_variable wake;
    int calls = 0;
    PasswordChecker checker({{"alice", hash_of_secret}}, [&] {
        const std::lock_guard lock(mutex);
        ++calls;
        wake.notify_one();
    });
    const auto verdict_on = [&](const Credentials& credentials) {
        EXPECT_TRUE(checker.verify_later(credentials, 7, "somewhere"));
        std::unique_lock lock(mutex);
        wake.wait(lock, [&] { return calls > 0; });
        calls = 0;
        lock.unlock();
        const auto verdicts = checker.take_verdicts();
        EXPECT_EQ(verdicts.size(), 1U);
        EXPECT_EQ(verdicts.at(0).asker, 7U);
        return verdicts.at(0).b_right;
    };
    EXPECT_FALSE(checker.is_known({"alice", "secret"}));
    EXPECT_FALSE(verdict_on({"alice", "Secret"}));
    EXPECT_FALSE(verdict_on({"bob", "secret"}));
    EXPECT_FALSE(verdict_on({"", ""}));
    EXPECT_TRUE(verdict_on({"alice", "secret"}));
    EXPECT_TRUE(checker.is_known({"alice", "secret"}));
    EXPECT_FALSE(checker.is_known({"alice", "Secret"}));
    EXPECT_FALSE(checker.is_known({"bob", "secret"}));
}
