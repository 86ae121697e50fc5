// The folder of identities: <dir>/ca, <dir>/broker and one folder for each node, as the programs read them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct stored_node {
	std::string name;
	std::string role;                    // "agent", "requester", "bridge" or "uplink"
	std::vector<std::string> units = {}; // behind a bridge or, of an uplink, on this side
	std::vector<std::string> peers = {}; // of an uplink: those at its far end
};

enum class store_mode : unsigned { open_to_readers = 0644, secret = 0600 };

bool file_exists(const std::string &path);

// Held by one command at a time, until it goes.
struct folder_lock {
	int descriptor = -1;

	folder_lock() = default;
	folder_lock(const folder_lock &) = delete;
	folder_lock &operator=(const folder_lock &) = delete;
	~folder_lock();
};

// Waits until no other command changes the folder: two that read a list, add to it and write it would lose one
// addition. A folder that is not there yet has nothing to lose. On failure false, with the cause in error.
bool lock_folder(const std::string &directory, folder_lock &lock, std::string &error);

// Makes a folder with its parents, writable by nobody else, readable by others as far as the umask lets. On failure
// false, with the cause in error.
bool make_folder(const std::string &path, std::string &error);

constexpr size_t largest_file = 1u << 20; // of those that have no limit of their own

// Reads a whole file of at most this many bytes. On failure false, with the cause in error.
bool read_file(const std::string &path, std::string &text, std::string &error, size_t largest = largest_file);

// "16 MiB", rounded down.
std::string mebibytes(size_t bytes);

// The lines of a file; none when it cannot be read.
std::vector<std::string> read_lines(const std::string &path);

// Writes a file as a whole: a reader sees the old text or the new one, and never a secret with a wider mode than it
// ends with. What is replaced keeps its owner. On failure false, with the cause in error.
bool write_file(const std::string &path, const std::string &text, store_mode mode, std::string &error);

// Gives the folder and the files directly in it to a user, so that a broker started by root can read its key after it
// has dropped its privileges. On failure false, with the cause in error.
bool give_to_user(const std::string &folder, const std::string &user, std::string &error);

// Gives the folder and the files directly in it to whom the model belongs. On failure false, with the cause in error.
bool give_to_owner(const std::string &folder, const std::string &model, std::string &error);

// The nodes of the folder, by name. A folder without a node's files is passed over.
std::vector<stored_node> list_nodes(const std::string &directory);
