// Makes the seeds of fuzz_live_image. Whole segments are large, as their auto-bypass table has room for every server it
// may ever hold; so most seeds are saved images made to look like live ones, in which the table is cut short.
#include "RE_stat_image.h"
#include "seeds.h"
#include "support/engine_shapes.h"

#include <cstring>

namespace {

std::vector<unsigned char> as_live(std::vector<unsigned char> saved)
{
    RE_image_header header{};
    std::memcpy(&header, saved.data(), sizeof header);
    header.state = RE_IMAGE_PUBLISHED;
    std::memcpy(saved.data(), &header, sizeof header);
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
    write_seed(folder, "bypassed", live_sample({0, 0, 0, 0, 2}));
    return 0;
}
