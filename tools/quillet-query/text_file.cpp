#include "text_file.h"

#include <cstdio>

bool read_text_file(const std::string &path, std::string &text)
{
	FILE *file = path == "-" ? stdin : fopen(path.c_str(), "rbe");
	if (file == nullptr)
		return false;
	std::string whole;
	char block[4096];
	size_t count = 0;
	while ((count = fread(block, 1, sizeof(block), file)) > 0)
		whole.append(block, count);
	bool complete = ferror(file) == 0;
	if (file != stdin)
		(void)fclose(file); // read only: nothing can be lost
	if (complete)
		text = std::move(whole);
	return complete;
}
