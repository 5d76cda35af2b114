// Lists mutants of C++ sources, one a line: file, line, offset, length, replacement, parted by tabs. Each is one small
// mistake: a comparison or operator that is another one, a number one higher, a word true for false, a format's width,
// a blank or a letter of a text.
//     kav_mutants SEED COUNT FILE...
// The order is drawn with SEED, so that any beginning of the list is a fair sample.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct mutant
{
    std::string file;
    std::size_t offset;
    std::size_t length;
    std::string replacement;
};

struct swap
{
    std::string_view from;
    std::string_view to;
};

// As clang-format writes them, binary operators have blanks around them and nothing else has.
constexpr swap operators[] = {
    {" == ", " != "}, {" != ", " == "}, {" <= ", " < "},  {" >= ", " > "},   {" < ", " <= "},
    {" > ", " >= "},  {" && ", " || "}, {" || ", " && "}, {" + ", " - "},    {" - ", " + "},
    {" * ", " / "},   {" / ", " * "},   {" % ", " / "},   {" & ", " | "},    {" += ", " -= "},
    {" -= ", " += "}, {" << ", " >> "}, {" >> ", " << "}, {"true", "false"}, {"false", "true"},
};

bool is_word(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

class finder
{
public:
    finder(std::string file, std::string text) : m_file(std::move(file)), m_text(std::move(text)) {}

    std::vector<mutant> find()
    {
        while (m_at < m_text.size()) {
            step();
        }
        return std::move(m_found);
    }

private:
    bool begins(std::string_view word) const { return m_text.compare(m_at, word.size(), word) == 0; }
    void skip_behind(std::string_view end)
    {
        m_at = std::min(m_text.find(end, m_at), m_text.size() - end.size()) + end.size();
    }
    void add(std::size_t length, std::string_view replacement)
    {
        m_found.push_back({m_file, m_at, length, std::string(replacement)});
    }

    void step()
    {
        const bool b_line_start = m_at == 0 || m_text[m_at - 1] == '\n';
        if (begins("//") || (b_line_start && begins("#"))) {
            skip_behind("\n");
        } else if (begins("static_assert")) {
            skip_behind(";");
        } else if (m_text[m_at] == '"') {
            take_text();
        } else if (m_text[m_at] == '\'') {
            ++m_at;
            skip_behind("'");
        } else if (std::isdigit(static_cast<unsigned char>(m_text[m_at])) != 0) {
            take_number();
        } else if (is_word(m_text[m_at])) {
            take_word();
        } else {
            take_operator();
        }
    }

    void take_number()
    {
        std::size_t end = m_at;
        while (end < m_text.size() && (is_word(m_text[end]) || m_text[end] == '.')) {
            ++end;
        }
        const std::string number = m_text.substr(m_at, end - m_at);
        // An array that is longer by one is no mistake.
        const bool b_array_size = m_at > 0 && m_text[m_at - 1] == '[' && m_text.compare(end, 2, "];") == 0;
        if (number.find_first_not_of("0123456789") == std::string::npos && number.size() < 10 && !b_array_size) {
            add(number.size(), std::to_string(std::strtoul(number.c_str(), nullptr, 10) + 1));
        }
        m_at = end;
    }

    void take_word()
    {
        std::size_t end = m_at;
        while (end < m_text.size() && is_word(m_text[end])) {
            ++end;
        }
        for (const swap& each : operators) {
            if (m_text.compare(m_at, end - m_at, each.from) == 0) {
                add(end - m_at, each.to);
            }
        }
        m_at = end;
    }

    void take_operator()
    {
        for (const swap& each : operators) {
            if (begins(each.from)) {
                add(each.from.size(), each.to);
                m_at += each.from.size() - 1; // the last blank may be the next one's first
                return;
            }
        }
        ++m_at;
    }

    void take_text()
    {
        ++m_at;
        for (; m_text[m_at] != '"'; ++m_at) {
            const char c = m_text[m_at];
            if (c == '\\') {
                ++m_at;
            } else if (c == '%') {
                take_conversion();
            } else if (c == ' ' && m_found.size() % 4 == 1) {
                add(1, "");
            } else if (std::isalpha(static_cast<unsigned char>(c)) != 0 && m_found.size() % 3 == 0) {
                add(1, std::isupper(static_cast<unsigned char>(c)) != 0 ? "x" : "X");
            }
        }
        ++m_at;
    }

    // A width or precision becomes one larger. Ends on the last character that belongs to it.
    void take_conversion()
    {
        while (m_text[m_at + 1] == '-' || m_text[m_at + 1] == '0' || m_text[m_at + 1] == '.' ||
               m_text[m_at + 1] == '%') {
            ++m_at;
        }
        std::size_t end = m_at + 1;
        while (std::isdigit(static_cast<unsigned char>(m_text[end])) != 0) {
            ++end;
        }
        if (end > m_at + 1) {
            ++m_at;
            add(end - m_at, std::to_string(std::strtoul(&m_text[m_at], nullptr, 10) + 1));
            m_at = end - 1;
        }
        while (std::isalpha(static_cast<unsigned char>(m_text[m_at + 1])) != 0 &&
               std::string_view("diuxslhcz").find(m_text[m_at + 1]) != std::string_view::npos &&
               std::string_view("diuxsc").find(m_text[m_at]) == std::string_view::npos) {
            ++m_at;
        }
    }

    std::string m_file;
    std::string m_text;
    std::size_t m_at = 0;
    std::vector<mutant> m_found;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "kav_mutants SEED COUNT FILE...\n");
        return 2;
    }
    std::vector<mutant> all;
    for (int at = 3; at < argc; ++at) {
        std::ifstream file(argv[at], std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        const std::vector<mutant> found = finder(argv[at], text).find();
        all.insert(all.end(), found.begin(), found.end());
    }
    std::mt19937 random(static_cast<unsigned int>(std::strtoul(argv[1], nullptr, 10)));
    std::shuffle(all.begin(), all.end(), random);
    const std::size_t count = std::min<std::size_t>(std::strtoul(argv[2], nullptr, 10), all.size());
    for (std::size_t at = 0; at < count; ++at) {
        const mutant& each = all[at];
        std::ifstream file(each.file, std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(each.offset), '\n');
        std::printf("%s\t%td\t%zu\t%zu\t%s\n", each.file.c_str(), line, each.offset, each.length,
                    each.replacement.c_str());
    }
    return 0;
}
