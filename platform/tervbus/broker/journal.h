// What the broker has taken and not yet saved. mosquitto acknowledges a publish a few milliseconds before it writes its
// persistence file, and a message for a node that is away is lost when the broker is killed between the two. So the
// plugin notes each message before it is acknowledged, and hands those that were not saved to the next broker. Nodes
// that had one already know its id and drop it.
//
// The broker replaces its file with every save. While it is still the file that was there when a note was made, that
// note is not saved; as soon as it is another one, all notes are, because they and the saves come from one thread.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

inline constexpr int64_t journal_max = 64 << 20; // bytes; without any save for so long there is no use in more

struct journal_message {
	std::string topic;
	std::string content_type; // empty: none
	std::string id;           // the movra-id
	std::string payload;
	int64_t noted_s = 0; // when it came, in seconds since 1970
	int64_t ends_s = 0;  // when its life is over, likewise
};

// What shows that the broker's file is another one.
struct saved_mark {
	uint64_t inode = 0;
	int64_t size = 0;
	int64_t changed_s = 0;
	int64_t changed_ns = 0;
	bool operator==(const saved_mark &) const = default;
};

struct journal {
	std::string saved_path; // of the broker's file
	int fd = -1;
	int64_t length = 0;
	saved_mark mark;           // of the broker's file when the notes were made
	bool trouble_told = false; // since the broker has last saved
};

// Opens the journal in the folder of the broker's file and reads what has not been saved. False, with the reason in
// *why, when it cannot be opened. A damaged end is left out: it was never acknowledged.
bool journal_open(journal *notes, const std::string &folder, int64_t now_s, std::vector<journal_message> *unsaved,
		std::string *why);

// Before the message is acknowledged. False, with the reason in *why, when there is no place for it: that leaves the
// message to the broker's own care.
bool journal_note(journal *notes, const journal_message &message, std::string *why);

void journal_close(journal *notes);
