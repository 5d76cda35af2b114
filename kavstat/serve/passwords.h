// Basic authentication. Verifying a password takes tens of milliseconds of processor time, by design of its hash. So a
// thread of its own verifies a limited number of passwords. Credentials are verified only once if they are correct.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kavstat {

struct Credentials
{
    std::string user;
    std::string password;
};

// "Basic dXNlcjpwYXNzd29yZA=="; returns nothing for other texts.
std::optional<Credentials> parse_basic_authorization(std::string_view field);

class PasswordChecker
{
public:
    struct Verdict
    {
        std::uint64_t asker;
        bool b_right;
    };

    // users: bcrypt hashes by name. on_verdict: is called in another thread when take_verdicts() has something to
    // return.
    PasswordChecker(const std::map<std::string, std::string>& users, std::function<void()> on_verdict);
    ~PasswordChecker();
    PasswordChecker(const PasswordChecker&) = delete;
    PasswordChecker& operator=(const PasswordChecker&) = delete;

    // Whether these credentials were verified before. Does not wait.
    bool is_known(const Credentials& credentials) const;
    // Verifies credentials in the other thread. asker: identifies the verdict. address: the client's. Returns false
    // when too many are waiting, of that address or of all.
    bool verify_later(Credentials credentials, std::uint64_t asker, const std::string& address);
    std::vector<Verdict> take_verdicts();

private:
    struct Question
    {
        Credentials credentials;
        std::uint64_t asker;
        std::string address;
    };
    using Mark = std::array<unsigned char, 32>;

    void work();
    bool verify(const Credentials& credentials) const;
    // An HMAC of verified credentials, from which they cannot be recovered.
    Mark mark_of(const Credentials& credentials) const;

    std::map<std::string, std::string> m_users;
    std::string m_hash_of_nobody; // for unknown users, so that they take as long
    std::function<void()> m_on_verdict;
    Mark m_key{};
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_b_stop = false;
    std::deque<Question> m_questions;
    std::vector<Verdict> m_verdicts;
    std::set<Mark> m_right; // at most one for each user
    std::thread m_thread;
};

} // namespace kavstat
