// Creates the seeds of fuzz_config_text.
#include "seeds.h"

int main(int argc, char** argv)
{
    const std::string folder = seed_folder(argc, argv);
    write_seed(folder, "lines", std::string("re.max_peers=50\nre.plz=1\n"));
    write_seed(folder, "no_newline", std::string("re.plz=1"));
    write_seed(folder, "conversions", std::string("100%n%s%d\n"));
    write_seed(folder, "nul", std::string("a\0b\n", 4));
    write_seed(folder, "binary", std::string("\xff\xfe\x80\r\n", 5));
    return 0;
}
