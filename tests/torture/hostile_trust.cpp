// Attacks on the identity of the engine and on the right to stop it. The neighbour tries everything that it may do, in
// all places where an engine of root may publish.
#include "hostile.h"
#include "support/engine_shapes.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

neighbour::neighbour(const std::function<void()>& work, bool b_endless, gid_t group)
    : forked_process([&](const callback& ready) {
          if (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(neighbour_user) != 0) {
              _exit(1);
          }
          if (b_endless) {
              ready();
          }
          work();
          ready();
      })
{
    if (!is_ready()) {
        throw std::runtime_error("no neighbour");
    }
}

namespace {

namespace fs = std::filesystem;

// Only the sample engine's configuration contains this address.
constexpr const char* forged_mac = "00:1a:2b:3c:4d:5e";
constexpr const char* true_mac = "02:4b:41:56:00:00";

std::string segment_name()
{
    const char* const name = std::getenv("KAV_STAT_SEGMENT");
    return name != nullptr ? name : "";
}

// A demo engine of root.
class real_engine
{
public:
    explicit real_engine(const hostile_place& place, const run_surroundings& surroundings = {})
        : m_program(place.bin + "/kav_demo_engine", {"--once", "/etc/hostname"}, surroundings)
    {
        const auto line = m_program.read_line();
        m_b_ready = line == "ready" && m_program.read_line() == "idle";
    }
    bool is_ready() const { return m_b_ready; }
    void kill_now()
    {
        m_program.send_signal(SIGKILL);
        m_program.finish();
    }

private:
    child_program m_program;
    bool m_b_ready = false;
};

bool lock_whole_file(int descriptor, short type)
{
    struct flock request = {};
    request.l_type = type;
    request.l_whence = SEEK_SET;
    return fcntl(descriptor, F_OFD_SETLK, &request) == 0;
}

// Writes the forged image to `path` and locks it as a running engine does.
void forge(const std::vector<unsigned char>& image, const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (descriptor >= 0 && write(descriptor, image.data(), image.size()) >= 0) {
        lock_whole_file(descriptor, F_WRLCK);
    }
}

// Writes the forged image to every place where readers or engines may look.
void forge_everywhere(const std::vector<unsigned char>& image)
{
    umask(0);
    for (const char* const folder : {"/dev/shm/kav-0", "/run/kav"}) {
        mkdir(folder, 0777);
        forge(image, std::string(folder) + "/" + segment_name());
    }
    forge(image, "/dev/shm/" + segment_name());
}

std::vector<unsigned char> forged_image()
{
    std::vector<unsigned char> image = live_sample({});
    fs::remove_all("/dev/shm/kav-0");
    return image;
}

bool is_forged(const program_result& report)
{
    return report.status == 0 || report.out.find(forged_mac) != std::string::npos;
}

bool is_true(const program_result& report)
{
    return report.status == 0 && report.out.find(true_mac) != std::string::npos;
}

std::string forge_an_engine(const hostile_place& place)
{
    const std::vector<unsigned char> image = forged_image();
    const neighbour forger([&] { forge_everywhere(image); });
    if (is_forged(place.view({"brief-config"}))) {
        return "the viewer reports the forgery";
    }
    const program_result json = place.run("kavstat", {"json", "--scope", "config"});
    if (json.status == 0 || json.out.find(forged_mac) != std::string::npos) {
        return "kavstat reports the forgery";
    }
    return {};
}

std::string forge_by_a_link(const hostile_place& place)
{
    const std::vector<unsigned char> image = forged_image();
    const neighbour forger([&] {
        umask(0);
        mkdir("/dev/shm/mine", 0777);
        forge(image, "/dev/shm/mine/" + segment_name());
        if (symlink("/dev/shm/mine", "/dev/shm/kav-0") != 0 ||
            symlink(("/dev/shm/mine/" + segment_name()).c_str(), ("/dev/shm/" + segment_name()).c_str()) != 0) {
            _exit(1);
        }
    });
    return is_forged(place.view({"brief-config"})) ? "the viewer reports the forgery" : "";
}

// The situation after `su`: root with the environment of the previous user.
std::string forge_in_a_session_that_root_has_taken_over(const hostile_place& place)
{
    const std::vector<unsigned char> image = forged_image();
    if (mkdir("/run/user", 0755) != 0 || mkdir("/run/user/65534", 0700) != 0 ||
        chown("/run/user/65534", neighbour_user, neighbour_group) != 0) {
        throw std::runtime_error("no session");
    }
    const neighbour forger([&] {
        mkdir("/run/user/65534/kav", 0755);
        forge(image, "/run/user/65534/kav/" + segment_name());
    });
    const run_surroundings session = {.environment = {{"XDG_RUNTIME_DIR", "/run/user/65534"}}};
    if (is_forged(place.view({"brief-config"}, session))) {
        return "the viewer reports the forgery";
    }
    const real_engine engine(place, session);
    return engine.is_ready() && is_true(place.view({"brief-config"}, session)) ? "" : "the engine cannot be had";
}

std::string starts_and_is_reported(const hostile_place& place)
{
    const real_engine engine(place);
    if (!engine.is_ready()) {
        return "the engine does not start";
    }
    return is_true(place.view({"brief-config"})) ? "" : "the viewer does not report the engine";
}

std::string keep_an_engine_out_by_a_forgery(const hostile_place& place)
{
    const std::vector<unsigned char> image = forged_image();
    const neighbour forger([&] { forge_everywhere(image); });
    return starts_and_is_reported(place);
}

template <typename Make>
std::string keep_an_engine_out(const hostile_place& place, const Make& make)
{
    const neighbour squatter([&] {
        umask(0);
        for (const std::string& path : {std::string("/dev/shm/kav-0"), "/dev/shm/" + segment_name()}) {
            if (make(path.c_str()) != 0) {
                _exit(1);
            }
        }
    });
    return starts_and_is_reported(place);
}

std::string keep_an_engine_out_by_a_file(const hostile_place& place)
{
    return keep_an_engine_out(place, [](const char* path) { return mknod(path, S_IFREG | 0666, 0); });
}

std::string keep_an_engine_out_by_a_folder(const hostile_place& place)
{
    return keep_an_engine_out(place, [](const char* path) { return mkdir(path, 0777); });
}

std::string keep_an_engine_out_by_a_link(const hostile_place& place)
{
    return keep_an_engine_out(place, [](const char* path) { return symlink("/dev/shm/elsewhere", path); });
}

std::string keep_an_engine_out_by_a_pipe(const hostile_place& place)
{
    return keep_an_engine_out(place, [](const char* path) { return mkfifo(path, 0666); });
}

// Replaces the folder by other things as fast as possible.
std::string race_for_the_folder(const hostile_place& place)
{
    const std::vector<unsigned char> image = forged_image();
    const auto race = [&] {
        umask(0);
        mkdir("/dev/shm/mine", 0777);
        forge(image, "/dev/shm/mine/" + segment_name());
        for (;;) {
            if (symlink("/dev/shm/mine", "/dev/shm/kav-0") == 0) {
                unlink("/dev/shm/kav-0");
            }
            if (mkdir("/dev/shm/kav-0", 0777) == 0) {
                rmdir("/dev/shm/kav-0");
            }
        }
    };
    const neighbour racer(race, true);
    for (int times = 0; times < 20; ++times) {
        if (is_forged(place.view({"brief-config"}))) {
            return "the viewer reports the forgery";
        }
    }
    return starts_and_is_reported(place);
}

std::vector<std::string> files_in_memory()
{
    std::vector<std::string> files;
    for (const char* const folder : {"/dev/shm", "/run"}) {
        std::error_code ignored;
        for (auto at = fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied, ignored);
             at != fs::recursive_directory_iterator(); at.increment(ignored)) {
            files.push_back(at->path());
        }
    }
    return files;
}

// Includes known paths, because some folders may be entered but not listed.
std::vector<std::string> files_to_try()
{
    std::vector<std::string> files = files_in_memory();
    for (const char* const folder : {"/dev/shm/", "/dev/shm/kav-0/", "/run/kav/"}) {
        for (const std::string& name : {segment_name(), std::string(".start"), std::string(".unfinished")}) {
            files.push_back(folder + name);
        }
    }
    return files;
}

// Opens everything that may be opened and holds locks on it.
void lock_everything()
{
    for (const std::string& path : files_to_try()) {
        int descriptor = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (descriptor >= 0) {
            lock_whole_file(descriptor, F_WRLCK);
        }
        descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (descriptor >= 0) {
            // Byte by byte, because another lock may already cover one of the bytes.
            for (off_t byte = 0; byte < 16; ++byte) {
                struct flock request = {};
                request.l_type = F_RDLCK;
                request.l_whence = SEEK_SET;
                request.l_start = byte;
                request.l_len = 1;
                fcntl(descriptor, F_OFD_SETLK, &request);
            }
        }
    }
}

std::string hold_locks(const hostile_place& place, gid_t group, const run_surroundings& surroundings)
{
    real_engine first(place, surroundings);
    if (!first.is_ready()) {
        return "no engine to attack";
    }
    const neighbour before(lock_everything, false, group);
    if (!is_true(place.view({"brief-config"}))) {
        return "the engine is no longer reported";
    }
    first.kill_now();
    const neighbour after(lock_everything, false, group);
    if (place.view({"brief-config"}).status == 0) {
        return "a dead engine looks alive";
    }
    const real_engine second(place, surroundings);
    if (!second.is_ready()) {
        return "no engine starts any more";
    }
    return is_true(place.view({"brief-config"})) ? "" : "the new engine is not reported";
}

std::string stop_a_restart_by_locks(const hostile_place& place)
{
    return hold_locks(place, neighbour_group, {});
}

void make_service_folder()
{
    if (mkdir("/run/kav", 0750) != 0 || chown("/run/kav", 0, operators) != 0 || chmod("/run/kav", 0750) != 0) {
        throw std::runtime_error("no /run/kav");
    }
}

const run_surroundings as_service = {.user = {{0, operators}}};

std::string stop_a_services_restart_by_locks(const hostile_place& place)
{
    make_service_folder();
    return hold_locks(place, operators, as_service);
}

std::string write_to_a_services_segment(const hostile_place& place)
{
    make_service_folder();
    const real_engine engine(place, as_service);
    const run_surroundings as_operator = {.user = {{neighbour_user, operators}}};
    if (!is_true(place.view({"brief-config"}, as_operator))) {
        return "the group cannot read";
    }
    const neighbour writer(
        [] {
            for (const std::string& path : files_to_try()) {
                truncate(path.c_str(), 0) == 0 ? _exit(1) : void();
                unlink(path.c_str()) == 0 ? _exit(1) : void();
            }
        },
        false, operators);
    return is_true(place.view({"brief-config"})) ? "" : "the engine is no longer reported";
}

// The attacker is in the group, which may write to the segment because of its mode.
std::string cut_a_services_segment(const hostile_place& place)
{
    make_service_folder();
    child_program engine(place.bin + "/kav_demo_engine",
                         {"--segment-mode", "0660", "--rate", "1", "--duration", "3", "/etc/hostname"}, as_service);
    if (engine.read_line() != "ready") {
        return "no engine to attack";
    }
    const auto cut = [] { truncate(("/run/kav/" + segment_name()).c_str(), 100) != 0 ? _exit(1) : void(); };
    const neighbour writer(cut, false, operators);
    bool b_reported = false;
    for (int tenths = 0; tenths < 20 && !b_reported; ++tenths) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        b_reported = is_true(place.view({"brief-config"}));
    }
    const program_result end = engine.finish();
    if (end.signal != 0) {
        return "the engine ends by signal " + std::to_string(end.signal);
    }
    return b_reported ? "" : "the engine is no longer reported";
}

std::string read_what_an_engine_publishes(const hostile_place& place)
{
    const real_engine engine(place);
    if (!engine.is_ready()) {
        return "no engine to attack";
    }
    const run_surroundings as_neighbour = {.user = {{neighbour_user, neighbour_group}}};
    if (place.view({"conn"}, as_neighbour).status == 0) {
        return "another user sees the connections";
    }
    const run_surroundings with_owner = {.environment = {{"KAV_STAT_OWNER", "root"}},
                                         .user = {{neighbour_user, neighbour_group}}};
    return place.view({"conn"}, with_owner).status == 0 ? "another user sees the connections" : "";
}

std::uintmax_t memory_in_use()
{
    const fs::space_info space = fs::space("/dev/shm");
    return space.capacity - space.free;
}

std::string grow_the_segment(const hostile_place& place)
{
    const real_engine engine(place);
    if (!engine.is_ready()) {
        return "no engine to attack";
    }
    const std::uintmax_t before = memory_in_use();
    const neighbour reader([] {
        for (const std::string& path : files_to_try()) {
            const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            struct stat found = {};
            if (descriptor < 0 || fstat(descriptor, &found) != 0 || !S_ISREG(found.st_mode)) {
                continue;
            }
            const auto size = static_cast<std::size_t>(found.st_size);
            void* const memory = mmap(nullptr, size, PROT_READ, MAP_SHARED | MAP_POPULATE, descriptor, 0);
            if (memory != MAP_FAILED) {
                const auto* const bytes = static_cast<const volatile unsigned char*>(memory);
                for (std::size_t at = 0; at < size; at += 4096) {
                    static_cast<void>(bytes[at]);
                }
            }
        }
    });
    return memory_in_use() == before ? ""
                                     : "the segment has grown from " + std::to_string(before) + " bytes to " +
                                           std::to_string(memory_in_use());
}

// Also fills the engine's memory, because the engine has more connections than fit into it.
std::string fill_the_memory(const hostile_place& place)
{
    if (mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777,size=2m") != 0) {
        throw std::runtime_error("no /dev/shm to fill");
    }
    child_program engine(place.bin + "/kav_demo_engine",
                         {"--slots", "100000", "--repeat", "1000", "--duration", "1", "/etc/hostname"});
    if (engine.read_line() != "ready") {
        return "no engine to attack";
    }
    const neighbour filler([] {
        const int file = open("/dev/shm/full", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::vector<char> bytes(4096);
        while (write(file, bytes.data(), bytes.size()) > 0) {
        }
    });
    const program_result end = engine.finish();
    return end.status == 0 ? "" : "the engine ends: " + end.err;
}

// Simulates an administrator who cleans up, or an accident. The neighbour is not involved.
std::string remove_the_segment(const hostile_place& place)
{
    const real_engine engine(place);
    if (!engine.is_ready()) {
        return "no engine to attack";
    }
    for (const auto& entry : fs::directory_iterator("/dev/shm")) {
        fs::remove_all(entry);
    }
    for (int tenths = 0; tenths < 50; ++tenths) {
        if (is_true(place.view({"brief-config"}))) {
            return {};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return "the engine is not reported any more";
}

std::string save_over_the_segment(const hostile_place& place)
{
    const real_engine engine(place);
    if (!engine.is_ready()) {
        return "no engine to attack";
    }
    for (const std::string& path : files_in_memory()) {
        if (fs::is_regular_file(path) && fs::file_size(path) > 0 && place.view({"save-file", path}).status == 0) {
            return "saving over the segment succeeds";
        }
    }
    return is_true(place.view({"brief-config"})) ? "" : "the engine is not reported any more";
}

// Kills the engine when it is about to rename its segment to its final name.
std::string leave_an_unfinished_segment(const hostile_place& place)
{
    const std::vector<std::string> words = {"-f",
                                            "-o",
                                            "/dev/null",
                                            "-e",
                                            "trace=rename,renameat,renameat2",
                                            "-e",
                                            "inject=rename,renameat,renameat2:signal=KILL:when=1",
                                            place.bin + "/kav_demo_engine",
                                            "--once",
                                            "/etc/hostname"};
    child_program("/usr/bin/strace", words).finish();
    const std::uintmax_t with_leftover = memory_in_use();
    std::uintmax_t with_engine = 0;
    {
        const real_engine engine(place);
        if (!engine.is_ready()) {
            return "no engine starts any more";
        }
        with_engine = memory_in_use();
    }
    if (with_leftover == 0) {
        return "nothing was left to be removed";
    }
    // The engine was killed with that object. Only its own segment may remain.
    std::size_t segments = 0;
    for (const std::string& path : files_in_memory()) {
        segments += fs::is_regular_file(path) && fs::file_size(path) > 0 ? 1U : 0U;
    }
    return segments == 1 ? "" : "the unfinished segment stays beside " + std::to_string(with_engine) + " bytes";
}

} // namespace

const std::vector<attack>& attacks_on_trust()
{
    static const std::vector<attack> attacks = {
        {"another user pretends to be the engine", forge_an_engine},
        {"the same, by links to its own files", forge_by_a_link},
        {"the same, in a session that root has taken over", forge_in_a_session_that_root_has_taken_over},
        {"a forgery keeps the engine from starting", keep_an_engine_out_by_a_forgery},
        {"an empty file keeps the engine from starting", keep_an_engine_out_by_a_file},
        {"a folder keeps the engine from starting", keep_an_engine_out_by_a_folder},
        {"a link keeps the engine from starting", keep_an_engine_out_by_a_link},
        {"a pipe keeps the engine from starting", keep_an_engine_out_by_a_pipe},
        {"another user changes the folder all the time", race_for_the_folder},
        {"readers' locks stop the engine's restart", stop_a_restart_by_locks},
        {"the same, by the group of a service", stop_a_services_restart_by_locks},
        {"the group of a service writes to the segment", write_to_a_services_segment},
        {"the group cuts a segment that it may write to", cut_a_services_segment},
        {"another user reads what the engine publishes", read_what_an_engine_publishes},
        {"another user makes the segment grow", grow_the_segment},
        {"another user fills the shared memory", fill_the_memory},
        {"the segment is removed", remove_the_segment},
        {"statistics are saved over the segment", save_over_the_segment},
        {"a killed engine leaves an unfinished segment", leave_an_unfinished_segment},
    };
    return attacks;
}
