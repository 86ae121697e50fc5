#include "journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace
{

constexpr uint32_t file_kind = 0x324A5451; // "QTJ2"

constexpr int64_t clock_step_s = 5; // that a clock may be set back while it runs

struct file_head {
	uint32_t kind;
	uint32_t unused;
	saved_mark mark;
};

// In front of each message, whose texts and payload follow in the order of their lengths.
struct message_head {
	int64_t noted_s;
	int64_t ends_s;
	uint32_t topic;
	uint32_t content_type;
	uint32_t id;
	uint32_t payload;
};

saved_mark mark_of(const std::string &path)
{
	struct stat status;
	if (stat(path.c_str(), &status) != 0)
		return {};
	return {status.st_ino, status.st_size, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

template <typename record>
void append(std::string *bytes, const record &value)
{
	bytes->append(reinterpret_cast<const char *>(&value), sizeof(value));
}

template <typename record>
bool take(std::string_view *bytes, record *value)
{
	if (bytes->size() < sizeof(*value))
		return false;
	memcpy(value, bytes->data(), sizeof(*value));
	bytes->remove_prefix(sizeof(*value));
	return true;
}

bool take_text(std::string_view *bytes, uint32_t length, std::string *text)
{
	if (bytes->size() < length)
		return false;
	*text = bytes->substr(0, length);
	bytes->remove_prefix(length);
	return true;
}

bool take_message(std::string_view *bytes, journal_message *message)
{
	message_head head;
	if (!take(bytes, &head))
		return false;
	message->noted_s = head.noted_s;
	message->ends_s = head.ends_s;
	return take_text(bytes, head.topic, &message->topic) &&
			take_text(bytes, head.content_type, &message->content_type) && take_text(bytes, head.id, &message->id) &&
			take_text(bytes, head.payload, &message->payload);
}

std::string read_all(int fd)
{
	std::string bytes;
	char chunk[64 * 1024];
	ssize_t count = 0;
	while ((count = read(fd, chunk, sizeof(chunk))) > 0)
		bytes.append(chunk, static_cast<size_t>(count));
	return bytes;
}

// Not a pipe, and not another file under a second name, which would be cut and given away.
bool is_own_file(int fd)
{
	struct stat status;
	return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1;
}

std::string open_trouble(const std::string &path, int error)
{
	if (error == ELOOP || error == EISDIR)
		return path + " is no file of its own: remove it, the broker makes a new one";
	return path + ": " + strerror(error) + ": plugin_opt_persistence has to name a folder that the broker can write to";
}

// The folder's owner is the broker's user, though the broker may still be root when it loads its plugins.
int open_file(const std::string &folder, std::string *why)
{
	struct stat owner;
	const std::string path = folder + "/unsaved.journal";
	const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
	if (fd < 0) {
		*why = open_trouble(path, errno);
		return -1;
	}
	if (!is_own_file(fd)) {
		close(fd);
		*why = open_trouble(path, ELOOP);
		return -1;
	}
	if (geteuid() == 0 && stat(folder.c_str(), &owner) == 0)
		(void)fchown(fd, owner.st_uid, owner.st_gid); // else only a broker started by root can use it again
	return fd;
}

bool cut(journal *notes, int64_t length)
{
	if (ftruncate(notes->fd, length) != 0)
		return false;
	notes->length = length;
	return true;
}

bool write_all(journal *notes, const std::string &bytes)
{
	const ssize_t written = write(notes->fd, bytes.data(), bytes.size());
	if (written != static_cast<ssize_t>(bytes.size())) {
		const int error = written < 0 ? errno : ENOSPC;
		(void)cut(notes, notes->length); // no half of a message in front of the next; a failure leaves the end damaged
		errno = error;
		return false;
	}
	notes->length += static_cast<int64_t>(bytes.size());
	return true;
}

// A clock that starts anew after a power cut shows a time before the note: how old the message is, nobody knows then.
bool is_alive(const journal_message &message, int64_t now_s)
{
	return message.noted_s - clock_step_s <= now_s && now_s < message.ends_s;
}

// How much of the file is whole and not saved.
size_t read_unsaved(const journal *notes, const std::string &file, int64_t now_s, std::vector<journal_message> *unsaved)
{
	std::string_view rest = file;
	file_head head;
	if (!take(&rest, &head) || head.kind != file_kind || !(head.mark == notes->mark))
		return 0;
	size_t whole = file.size() - rest.size();
	for (journal_message message; take_message(&rest, &message); whole = file.size() - rest.size())
		if (is_alive(message, now_s))
			unsaved->push_back(message);
	return whole;
}

bool begin_anew_after_a_save(journal *notes)
{
	const saved_mark mark = mark_of(notes->saved_path);
	if (mark == notes->mark)
		return true;
	if (!cut(notes, 0))
		return false;
	notes->mark = mark;
	notes->trouble_told = false;
	return true;
}

std::string bytes_of(const journal &notes, const journal_message &message)
{
	std::string bytes;
	if (notes.length == 0)
		append(&bytes, file_head{file_kind, 0, notes.mark});
	append(&bytes,
			message_head{message.noted_s, message.ends_s, static_cast<uint32_t>(message.topic.size()),
					static_cast<uint32_t>(message.content_type.size()), static_cast<uint32_t>(message.id.size()),
					static_cast<uint32_t>(message.payload.size())});
	bytes += message.topic + message.content_type + message.id + message.payload;
	return bytes;
}

} // namespace

bool journal_open(journal *notes, const std::string &folder, int64_t now_s, std::vector<journal_message> *unsaved,
		std::string *why)
{
	notes->fd = open_file(folder, why);
	if (notes->fd < 0)
		return false;
	notes->saved_path = folder + "/mosquitto.db";
	notes->mark = mark_of(notes->saved_path);
	// What is not saved stays where it is: this broker may be killed before it has saved it.
	if (cut(notes, static_cast<int64_t>(read_unsaved(notes, read_all(notes->fd), now_s, unsaved))))
		return true;
	*why = open_trouble(folder + "/unsaved.journal", errno);
	return false;
}

bool journal_note(journal *notes, const journal_message &message, std::string *why)
{
	if (!begin_anew_after_a_save(notes)) {
		*why = strerror(errno);
		return false;
	}
	if (notes->length > journal_max) {
		*why = "its " + std::to_string(journal_max) + " bytes are full, and the broker has not written " +
				notes->saved_path + " meanwhile";
		return false;
	}
	if (write_all(notes, bytes_of(*notes, message)))
		return true;
	*why = strerror(errno);
	return false;
}

void journal_close(journal *notes)
{
	if (notes->fd >= 0)
		close(notes->fd);
	notes->fd = -1;
}
