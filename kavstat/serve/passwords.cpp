#include "serve/passwords.h"

#include <crypt.h>
#include <gnutls/crypto.h>
#include <strings.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace kavstat {

namespace {

constexpr std::size_t most_questions = 16;
constexpr int most_questions_of_address = 2;

std::optional<std::string> decoded_base64(std::string_view text)
{
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::size_t end = text.find_last_not_of('=');
    if (text.size() % 4 != 0 || end == std::string_view::npos || text.size() - end > 3) {
        return std::nullopt;
    }
    std::string bytes;
    unsigned int bits = 0;
    int count = 0;
    for (const char letter : text.substr(0, end + 1)) {
        const std::size_t value = alphabet.find(letter);
        if (value == std::string_view::npos) {
            return std::nullopt;
        }
        bits = bits << 6U | static_cast<unsigned int>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> static_cast<unsigned int>(count) & 0xFFU);
        }
    }
    return bytes;
}

void forget(std::string& text)
{
    explicit_bzero(text.data(), text.size());
}

} // namespace

std::optional<Credentials> parse_basic_authorization(std::string_view field)
{
    constexpr std::string_view scheme = "basic ";
    if (field.size() < scheme.size() || strncasecmp(field.data(), scheme.data(), scheme.size()) != 0) {
        return std::nullopt;
    }
    field.remove_prefix(std::min(field.find_first_not_of(' ', scheme.size()), field.size()));
    const std::optional<std::string> text = decoded_base64(field);
    const std::size_t colon = text ? text->find(':') : std::string::npos;
    // The hash ignores what follows a NUL, and further bytes.
    constexpr std::size_t longest_password = 72;
    if (colon == std::string::npos || text->find('\0') != std::string::npos ||
        text->size() - colon - 1 > longest_password) {
        return std::nullopt;
    }
    return Credentials{text->substr(0, colon), text->substr(colon + 1)};
}

PasswordChecker::PasswordChecker(const std::map<std::string, std::string>& users, std::function<void()> on_verdict)
    : m_users(users), m_on_verdict(std::move(on_verdict))
{
    if (gnutls_rnd(GNUTLS_RND_KEY, m_key.data(), m_key.size()) != 0) {
        throw std::runtime_error("no random numbers");
    }
    // The hash with the highest cost.
    for (const auto& [user, hash] : m_users) {
        if (m_hash_of_nobody.empty() || hash.substr(4, 2) > m_hash_of_nobody.substr(4, 2)) {
            m_hash_of_nobody = hash;
        }
    }
    m_thread = std::thread([this] { work(); });
}

PasswordChecker::~PasswordChecker()
{
    {
        const std::lock_guard lock(m_mutex);
        m_b_stop = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

PasswordChecker::Mark PasswordChecker::mark_of(const Credentials& credentials) const
{
    const std::string text = credentials.user + '\0' + credentials.password;
    Mark mark{};
    gnutls_hmac_fast(GNUTLS_MAC_SHA256, m_key.data(), m_key.size(), text.data(), text.size(), mark.data());
    return mark;
}

bool PasswordChecker::is_known(const Credentials& credentials) const
{
    const Mark mark = mark_of(credentials);
    const std::lock_guard lock(m_mutex);
    return m_right.contains(mark);
}

bool PasswordChecker::verify_later(Credentials credentials, std::uint64_t asker, const std::string& address)
{
    const std::lock_guard lock(m_mutex);
    const auto of_address = std::count_if(m_questions.begin(), m_questions.end(),
                                          [&](const Question& each) { return each.address == address; });
    if (m_questions.size() >= most_questions || of_address >= most_questions_of_address) {
        return false;
    }
    m_questions.push_back({std::move(credentials), asker, address});
    m_wake.notify_one();
    return true;
}

std::vector<PasswordChecker::Verdict> PasswordChecker::take_verdicts()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_verdicts, {});
}

bool PasswordChecker::verify(const Credentials& credentials) const
{
    const auto found = m_users.find(credentials.user);
    const std::string& hash = found != m_users.end() ? found->second : m_hash_of_nobody;
    const auto space = std::make_unique<crypt_data>();
    const char* const made = crypt_r(credentials.password.c_str(), hash.c_str(), space.get());
    const bool b_equal =
        made != nullptr && std::strlen(made) == hash.size() && gnutls_memcmp(made, hash.data(), hash.size()) == 0;
    explicit_bzero(space.get(), sizeof *space);
    return b_equal && found != m_users.end();
}

void PasswordChecker::work()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_b_stop || !m_questions.empty(); });
        if (m_b_stop) {
            return;
        }
        // It stays in the queue while it is verified, so that it counts towards the limits.
        Credentials credentials = m_questions.front().credentials;
        lock.unlock();
        const auto begin = std::chrono::steady_clock::now();
        const bool b_right = verify(credentials);
        const auto time_taken = std::chrono::steady_clock::now() - begin;
        const Mark mark = mark_of(credentials);
        forget(credentials.password);
        lock.lock();
        if (b_right) {
            m_right.insert(mark);
        }
        m_verdicts.push_back({m_questions.front().asker, b_right});
        forget(m_questions.front().credentials.password);
        m_questions.pop_front();
        m_on_verdict();
        if (!b_right) {
            // Guessing takes at most a quarter of a processor.
            m_wake.wait_for(lock, 3 * time_taken, [this] { return m_b_stop; });
        }
    }
}

} // namespace kavstat
