// Creates the seeds of fuzz_saved_file: small files as engines of several sizes save them.
#include "seeds.h"
#include "support/engine_shapes.h"
#include "support/relaid_image.h"

int main(int argc, char** argv)
{
    const std::string folder = seed_folder(argc, argv);
    use_own_segment();
    write_seed(folder, "nothing", saved_sample(empty_shape));
    write_seed(folder, "a_peer", saved_sample({1, 0, 0, 0, 0}));
    write_seed(folder, "a_conn", saved_sample({1, 1, 0, 0, 0}));
    write_seed(folder, "conns", saved_sample({2, 4, 0, 0, 0}));
    write_seed(folder, "apps", saved_sample({0, 0, 3, 0, 0}));
    write_seed(folder, "nacks", saved_sample({0, 0, 0, 5, 0}));
    write_seed(folder, "bypassed", saved_sample({0, 0, 0, 0, 2}));
    write_seed(folder, "everything", saved_sample({}));
    write_seed(folder, "of_a_later_release", relaid_image(saved_sample({1, 1, 1, 1, 0}), {8, 2}));
    std::vector<unsigned char> cut = saved_sample(empty_shape);
    cut.resize(200);
    write_seed(folder, "cut", cut);
    return 0;
}
