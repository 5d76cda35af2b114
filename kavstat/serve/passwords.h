// Basic authentication. Verifying a password takes tens of milliseconds of processor time, by design of its hash. So it
// is done in a thread of its own, a few at a time; what was right once is known from then on.
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

// "Basic dXNlcjpwYXNzd29yZA=="; nothing when it is not of that form.
std::optional<Credentials> parse_basic_authorization(std::string_view field);

class PasswordChecker
{
public:
    struct Verdict
    {
        std::uint64_t asker;
        bool b_right;
    };

    // users: bcrypt hashes by name. on_verdict: called in another thread when there are verdicts to be taken.
    PasswordChecker(const std::map<std::string, std::string>& users, std::function<void()> on_verdict);
    ~PasswordChecker();
    PasswordChecker(const PasswordChecker&) = delete;
    PasswordChecker& operator=(const PasswordChecker&) = delete;

    // Whether these were found right before. Takes no time.
    bool is_known(const Credentials& credentials) const;
    // Verifies others; a verdict comes. asker: a number for the verdict. address: the client's. False when too many are
    // being verified, of that address or of all.
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
    // Of credentials that are right; nobody without the key can go back from it.
    Mark mark_of(const Credentials& credentials) const;

    std::map<std::string, std::string> m_users;
    std::string m_hash_of_nobody; // for users that do not exist, so that they take as long
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
