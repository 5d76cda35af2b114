// Prints every report on any bytes as a saved statistics file: as they are, and with a corrected header and checksum,
// because otherwise nearly every input is refused at once.
#include "RE_file_reader.h"
#include "harness.h"
#include "support/relaid_image.h"

#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    discard_output();
    return 0;
}

namespace {

void read_as_file(const std::vector<unsigned char>& bytes)
{
    const memory_file file(bytes.data(), bytes.size());
    RE_file_reader reader(file.path());
    if (reader.open() >= 0) {
        exercise(reader);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<unsigned char> bytes(data, data + size);
    read_as_file(bytes);
    repair_image(bytes.data(), bytes.size(), RE_image_kind::saved);
    read_as_file(bytes);
    return 0;
}
