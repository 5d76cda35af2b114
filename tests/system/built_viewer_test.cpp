// The viewer as it was built: how it is linked and hardened, read from the file itself, and what rights it needs.

#include "support/own_session.h"
#include "support/viewer_test.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

#ifdef KAV_STATIC_VIEWER

// A 64-bit ELF file in memory.
class elf_file
{
public:
    explicit elf_file(const std::string& path) : m_bytes(bytes_of_file(path)) {}

    Elf64_Ehdr header() const { return record_at<Elf64_Ehdr>(0); }

    std::vector<Elf64_Phdr> segments(Elf64_Word type) const
    {
        std::vector<Elf64_Phdr> found = records_at<Elf64_Phdr>(header().e_phoff, header().e_phnum);
        std::erase_if(found, [=](const Elf64_Phdr& segment) { return segment.p_type != type; });
        return found;
    }

    // The value of a tag of the dynamic section, 0 when it has none.
    Elf64_Xword dynamic_value(Elf64_Sxword tag) const
    {
        for (const Elf64_Phdr& segment : segments(PT_DYNAMIC)) {
            for (const Elf64_Dyn& entry :
                 records_at<Elf64_Dyn>(segment.p_offset, segment.p_filesz / sizeof(Elf64_Dyn))) {
                if (entry.d_tag == tag) {
                    return entry.d_un.d_val;
                }
            }
        }
        return 0;
    }

    // Whether a function of this name is defined.
    bool has_function(std::string_view name) const
    {
        const std::vector<named_symbol> all = functions();
        return std::any_of(all.begin(), all.end(), [=](const named_symbol& symbol) { return symbol.name == name; });
    }

    // The code of all functions whose names contain `part`.
    std::string code_of(std::string_view part) const
    {
        std::string code;
        for (const named_symbol& function : functions()) {
            if (function.name.find(part) == std::string_view::npos) {
                continue;
            }
            for (const Elf64_Phdr& segment : segments(PT_LOAD)) {
                const Elf64_Addr start = function.symbol.st_value;
                if (start >= segment.p_vaddr && start < segment.p_vaddr + segment.p_filesz) {
                    code += m_bytes.substr(start - segment.p_vaddr + segment.p_offset, function.symbol.st_size);
                }
            }
        }
        return code;
    }

private:
    struct named_symbol
    {
        std::string_view name;
        Elf64_Sym symbol;
    };

    template <typename Record>
    Record record_at(std::size_t offset) const
    {
        Record record{};
        if (offset <= m_bytes.size() && m_bytes.size() - offset >= sizeof record) {
            std::memcpy(&record, m_bytes.data() + offset, sizeof record);
        }
        return record;
    }

    template <typename Record>
    std::vector<Record> records_at(std::size_t offset, std::size_t count) const
    {
        std::vector<Record> records;
        for (std::size_t at = 0; at < count; ++at) {
            records.push_back(record_at<Record>(offset + at * sizeof(Record)));
        }
        return records;
    }

    std::vector<named_symbol> functions() const
    {
        std::vector<named_symbol> found;
        const auto sections = records_at<Elf64_Shdr>(header().e_shoff, header().e_shnum);
        for (const Elf64_Shdr& section : sections) {
            if (section.sh_type != SHT_SYMTAB) {
                continue;
            }
            const std::size_t names = sections.at(section.sh_link).sh_offset;
            for (const Elf64_Sym& symbol :
                 records_at<Elf64_Sym>(section.sh_offset, section.sh_size / sizeof(Elf64_Sym))) {
                if (ELF64_ST_TYPE(symbol.st_info) == STT_FUNC && symbol.st_shndx != SHN_UNDEF) {
                    found.push_back({m_bytes.data() + names + symbol.st_name, symbol});
                }
            }
        }
        return found;
    }

    std::string m_bytes;
};

class built_viewer : public testing::Test
{
protected:
    const elf_file m_viewer{built_program("exec_show_stats_kav")};
};

#endif

class viewer_rights : public viewer_test
{
protected:
    // Who may read the segment because of its group alone.
    static constexpr gid_t operators = 54321;
};

} // namespace

#ifdef KAV_STATIC_VIEWER

TEST_F(built_viewer, is_position_independent_and_needs_no_dynamic_linker)
{
    EXPECT_EQ(m_viewer.header().e_type, ET_DYN);
    EXPECT_EQ(m_viewer.dynamic_value(DT_FLAGS_1) & DF_1_PIE, Elf64_Xword{DF_1_PIE});
    EXPECT_TRUE(m_viewer.segments(PT_INTERP).empty());
    EXPECT_EQ(m_viewer.dynamic_value(DT_NEEDED), 0U);
}

TEST_F(built_viewer, has_its_relocated_data_made_read_only)
{
    EXPECT_EQ(m_viewer.segments(PT_GNU_RELRO).size(), 1U);
    EXPECT_EQ(m_viewer.dynamic_value(DT_FLAGS_1) & DF_1_NOW, Elf64_Xword{DF_1_NOW});
}

TEST_F(built_viewer, has_no_memory_that_can_be_written_and_run)
{
    const std::vector<Elf64_Phdr> stack = m_viewer.segments(PT_GNU_STACK);
    ASSERT_EQ(stack.size(), 1U);
    EXPECT_EQ(stack.front().p_flags & PF_X, 0U);
    ASSERT_FALSE(m_viewer.segments(PT_LOAD).empty());
    for (const Elf64_Phdr& segment : m_viewer.segments(PT_LOAD)) {
        EXPECT_NE(segment.p_flags & (PF_W | PF_X), Elf64_Word{PF_W | PF_X});
    }
}

#ifdef __x86_64__
TEST_F(built_viewer, guards_its_stack)
{
    // Taking the guard value from %fs:0x28, which functions that hold arrays begin with.
    const std::string take_guard("\x25\x28\x00\x00\x00", 5);
    const std::string code = m_viewer.code_of("RE_save_target");
    ASSERT_FALSE(code.empty());
    const std::size_t found = code.find(take_guard);
    ASSERT_NE(found, std::string::npos);
    EXPECT_EQ(code.at(found - 4), '\x64') << "the fs prefix";
}
#endif

#ifdef KAV_FORTIFIED
TEST_F(built_viewer, checks_what_it_formats)
{
    EXPECT_TRUE(m_viewer.has_function("__printf_chk"));
    EXPECT_TRUE(m_viewer.has_function("__snprintf_chk"));
    EXPECT_FALSE(m_viewer.has_function("no_such_function"));
}
#endif

#endif

TEST_F(viewer_rights, to_read_are_enough_for_every_word)
{
    const own_session session;
    const small_engine engine;
    ASSERT_TRUE(session.let_others_in());
    ASSERT_EQ(chmod(segment_path().c_str(), 0440), 0);
    ASSERT_EQ(chmod(folder().c_str(), 0777), 0);
    run_surroundings without_more;
    if (geteuid() == 0) {
        ASSERT_EQ(chown(segment_path().c_str(), 0, operators), 0);
        without_more.user = {nobody, operators};
    }
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"global-detail"}, {"peer", "detail"}, {"conn"}, {"nack"}, {"top-app"}, {"config"}, {"tech-support"}}) {
        const program_result result = run_viewer(arguments, without_more);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, report_of(arguments));
    }
    EXPECT_EQ(run_viewer({"save-file", path("saved")}, without_more).status, 0);
    EXPECT_EQ(run_viewer({"read-file", path("saved")}, without_more).status, 0);
}

TEST_F(viewer_rights, leave_the_segment_as_it_is)
{
    const std::string before = bytes_of_file(segment_path());
    for (const char* word : {"global-detail", "peer", "conn", "nack", "top-app", "config", "tech-support"}) {
        run_viewer({word});
    }
    run_viewer({"save-file", path("saved")});
    EXPECT_TRUE(bytes_of_file(segment_path()) == before);
}
