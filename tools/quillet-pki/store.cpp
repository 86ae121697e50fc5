#include "store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

static std::string cause()
{
	return std::strerror(errno);
}

bool file_exists(const std::string &path)
{
	std::error_code ignored;
	return fs::exists(path, ignored);
}

folder_lock::~folder_lock()
{
	if (descriptor >= 0)
		close(descriptor);
}

bool lock_folder(const std::string &directory, folder_lock &lock, std::string &error)
{
	lock.descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (lock.descriptor < 0 && errno == ENOENT)
		return true;
	int locked = -1;
	while (lock.descriptor >= 0 && (locked = flock(lock.descriptor, LOCK_EX)) != 0 && errno == EINTR)
		;
	if (locked != 0)
		error = "the folder " + directory + " cannot be locked: " + cause();
	return locked == 0;
}

bool make_folder(const std::string &path, std::string &error)
{
	std::error_code failure;
	const mode_t before = umask(0);
	umask(before | S_IWGRP | S_IWOTH); // who can write in a folder can replace a key in it
	fs::create_directories(path, failure);
	umask(before);
	if (failure) {
		error = "the folder " + path + " cannot be made: " + failure.message();
		return false;
	}
	return true;
}

std::string mebibytes(size_t bytes)
{
	return std::to_string(bytes >> 20) + " MiB";
}

bool read_file(const std::string &path, std::string &text, std::string &error, size_t largest)
{
	int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
	if (descriptor < 0) {
		error = path + " cannot be read: " + cause();
		return false;
	}
	std::string read_text;
	char block[4096];
	ssize_t count = 0;
	while ((count = read(descriptor, block, sizeof(block))) > 0 && read_text.size() <= largest)
		read_text.append(block, static_cast<size_t>(count));
	std::string failure = count < 0      ? cause()
			: read_text.size() > largest ? "it is larger than " + mebibytes(largest)
										 : "";
	close(descriptor);
	if (!failure.empty()) {
		error = path + " cannot be read: " + failure;
		return false;
	}
	text = std::move(read_text);
	return true;
}

std::vector<std::string> read_lines(const std::string &path)
{
	std::vector<std::string> lines;
	std::string text;
	std::string ignored;
	if (!read_file(path, text, ignored))
		return lines;
	std::istringstream stream(text);
	for (std::string line; std::getline(stream, line);)
		lines.push_back(line);
	return lines;
}

static bool write_all(int descriptor, const std::string &text)
{
	size_t written = 0;
	while (written < text.size()) {
		ssize_t count = write(descriptor, text.data() + written, text.size() - written);
		if (count < 0 && errno != EINTR)
			return false;
		if (count > 0)
			written += static_cast<size_t>(count);
	}
	return true;
}

// What replaces a file of the broker's user stays that user's.
static bool keep_owner(int descriptor, const std::string &path)
{
	struct stat old = {};
	struct stat fresh = {};
	if (stat(path.c_str(), &old) != 0 || fstat(descriptor, &fresh) != 0 || old.st_uid == fresh.st_uid)
		return true;
	return fchown(descriptor, old.st_uid, old.st_gid) == 0;
}

bool write_file(const std::string &path, const std::string &text, store_mode mode, std::string &error)
{
	std::string fresh = path + ".new";
	unlink(fresh.c_str()); // what an interrupted run may have left; a missing one is the usual case
	mode_t bits = static_cast<mode_t>(mode);
	int descriptor = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, bits);
	if (descriptor < 0) {
		error = fresh + " cannot be made: " + cause();
		return false;
	}
	bool written = fchmod(descriptor, bits) == 0 && keep_owner(descriptor, path) && write_all(descriptor, text) &&
			fsync(descriptor) == 0;
	std::string failure = written ? "" : cause();
	close(descriptor);
	if (written && rename(fresh.c_str(), path.c_str()) != 0) {
		written = false;
		failure = cause();
	}
	if (!written) {
		unlink(fresh.c_str());
		error = path + " cannot be written: " + failure;
	}
	return written;
}

static bool give(const std::string &folder, uid_t user, gid_t group, const std::string &whom, std::string &error)
{
	std::error_code failure;
	std::vector<std::string> paths = {folder};
	for (const fs::directory_entry &file : fs::directory_iterator(folder, failure))
		paths.push_back(file.path().string());
	for (const std::string &path : paths) {
		if (lchown(path.c_str(), user, group) != 0) {
			error = path + " cannot be given to " + whom + ": " + cause() + "; run this as root or without --user";
			return false;
		}
	}
	return true;
}

bool give_to_user(const std::string &folder, const std::string &user, std::string &error)
{
	const passwd *entry = getpwnam(user.c_str());
	if (entry == nullptr) {
		error = "there is no user \"" + user + "\" on this machine; name another with --user";
		return false;
	}
	return give(folder, entry->pw_uid, entry->pw_gid, user, error);
}

bool give_to_owner(const std::string &folder, const std::string &model, std::string &error)
{
	struct stat facts = {};
	if (stat(model.c_str(), &facts) != 0) {
		error = model + " cannot be looked at: " + cause();
		return false;
	}
	return facts.st_uid == geteuid() || give(folder, facts.st_uid, facts.st_gid, "the broker's user", error);
}

std::vector<stored_node> list_nodes(const std::string &directory)
{
	std::vector<stored_node> nodes;
	std::error_code failure;
	for (const fs::directory_entry &entry : fs::directory_iterator(directory, failure)) {
		std::string role;
		std::string ignored;
		if (!entry.is_directory(failure) || !read_file((entry.path() / "role").string(), role, ignored))
			continue;
		while (!role.empty() && role.back() == '\n')
			role.pop_back();
		const std::string folder = entry.path().string();
		nodes.push_back(
				{entry.path().filename().string(), role, read_lines(folder + "/units"), read_lines(folder + "/peers")});
	}
	std::sort(nodes.begin(), nodes.end(),
			[](const stored_node &left, const stored_node &right) { return left.name < right.name; });
	return nodes;
}
