// Creates the seeds of fuzz_live_image. Whole segments are large, because their auto-bypass table has room for every
// server that it may ever contain. So most seeds are saved images that are changed to look like live ones, with that
// table truncated.
#include "RE_stat_image.h"
#include "seeds.h"
#include "support/engine_shapes.h"
#include "support/relaid_image.h"

#include <cstring>

namespace {

std::vector<unsigned char> as_live(std::vector<unsigned char> saved)
{
    RE_image_header header{};
    std::memcpy(&header, saved.data(), sizeof header);
    for (std::uint32_t at = 0; at < header.section_count; ++at) {
        unsigned char* const place = saved.data() + sizeof header + at * sizeof(RE_image_section);
        RE_image_section section{};
        std::memcpy(&section, place, sizeof section);
        section.slots = section.rows; // a live image has one row per slot
        std::memcpy(place, &section, sizeof section);
    }
    repair_image(saved.data(), saved.size(), RE_image_kind::live);
    return saved;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string folder = seed_folder(argc, argv);
    use_own_segment();
    write_seed(folder, "a_peer", as_live(saved_sample({1, 0, 0, 0, 0})));
    write_seed(folder, "conns", as_live(saved_sample({1, 2, 0, 0, 0})));
    write_seed(folder, "apps", as_live(saved_sample({0, 0, 3, 0, 0})));
    write_seed(folder, "nacks", as_live(saved_sample({0, 0, 0, 5, 0})));
    write_seed(folder, "of_a_later_release", as_live(relaid_image(saved_sample({1, 1, 1, 1, 0}), {8, 2})));
    write_seed(folder, "bypassed", live_sample({0, 0, 0, 0, 2}));
    return 0;
}
