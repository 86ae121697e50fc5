#include "key_plugin.h"

#include <filesystem>

#include <dlfcn.h>

namespace
{

std::string loader_error()
{
	const char *text = dlerror();
	return text != nullptr ? text : "unknown error of the loader";
}

} // namespace

uds_key_function key_plugin_load(const std::string &directory, std::string *error)
{
	const std::string path = directory + "/libecusecalgo.so";
	void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
	if (library == nullptr) {
		*error = loader_error();
		return nullptr;
	}
	void *symbol = dlsym(library, "esr_calculate_key");
	if (symbol == nullptr) {
		*error = loader_error();
		(void)dlclose(library); // the error to tell is the missing symbol
		return nullptr;
	}
	return reinterpret_cast<uds_key_function>(symbol);
}

std::string key_plugin_default_directory()
{
	std::error_code failed;
	const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failed);
	return failed ? std::string() : (program.parent_path().parent_path() / "lib").string();
}
