// Gives each file of a corpus directory to a fuzz target once. An empty or missing corpus is a failure.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
	if (argc != 2) {
		fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
		return 2;
	}

	size_t count = 0;
	std::error_code error;
	for (const auto &entry : std::filesystem::directory_iterator(argv[1], error)) {
		std::ifstream file(entry.path(), std::ios::binary);
		std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
		fprintf(stderr, "%s\n", entry.path().c_str());
		(void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()); // always 0
		++count;
	}
	fprintf(stderr, "%zu inputs replayed\n", count);
	return count > 0 ? 0 : 1;
}
