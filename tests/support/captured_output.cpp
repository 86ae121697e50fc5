#include "support/captured_output.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

namespace
{

void require(bool good, const char *what)
{
	if (good)
		return;
	perror(what);
	abort();
}

std::string content(int file)
{
	std::string text;
	char part[4096];
	off_t offset = 0;
	for (ssize_t n; (n = pread(file, part, sizeof part, offset)) > 0; offset += n)
		text.append(part, static_cast<size_t>(n));
	return text;
}

void show(int descriptor, const std::string &text)
{
	for (size_t done = 0; done < text.size();) {
		ssize_t n = write(descriptor, text.data() + done, text.size() - done);
		if (n <= 0)
			return;
		done += static_cast<size_t>(n);
	}
}

std::vector<std::string> lines_of(const std::string &text)
{
	std::vector<std::string> lines;
	for (size_t start = 0; start < text.size();) {
		size_t end = std::min(text.find('\n', start), text.size());
		lines.push_back(text.substr(start, end - start));
		start = end + 1;
	}
	return lines;
}

// "[11-15:15:50:21.123] <label> source:line message"; the label is a coloured word or nothing.
log_record parse_line(const std::string &line)
{
	int stamp_end = 0, head_end = 0, number = 0;
	char label[16] = "", source[64] = "";
	(void)sscanf(line.c_str(), "[%*2d-%*2d:%*2d:%*2d:%*2d.%*3d] %n", &stamp_end);
	if (stamp_end == 0)
		return {"", "", 0, line};

	const char *rest = line.c_str() + stamp_end;
	if (sscanf(rest, "\x1b[1;%*2dm%15[A-Z0-9]", label) == 1) {
		const char *reset = strstr(rest, "\x1b[1;0m ");
		if (reset == nullptr)
			return {"", "", 0, line};
		rest = reset + strlen("\x1b[1;0m ");
	}
	if (sscanf(rest, "%63[^ :]:%d%n", source, &number, &head_end) != 2 || rest[head_end] != ' ')
		return {"", "", 0, line};
	return {label, source, number, rest + head_end + 1};
}

}

captured_output::captured_output() : out{STDOUT_FILENO, -1, -1}, error{STDERR_FILENO, -1, -1}
{
	fflush(stdout);
	fflush(stderr);
	for (stream *each : {&out, &error}) {
		each->saved = dup(each->descriptor);
		each->file = memfd_create("captured_output", MFD_CLOEXEC);
		require(each->saved >= 0 && each->file >= 0, "captured_output");
		require(dup2(each->file, each->descriptor) >= 0, "captured_output");
	}
}

captured_output::~captured_output()
{
	fflush(stdout);
	fflush(stderr);
	for (stream *each : {&out, &error}) {
		dup2(each->saved, each->descriptor);
		if (testing::Test::HasFailure())
			show(each->descriptor, content(each->file));
		close(each->file);
		close(each->saved);
	}
}

std::string captured_output::text() const
{
	fflush(stdout);
	return content(out.file);
}

std::string captured_output::error_text() const
{
	fflush(stderr);
	return content(error.file);
}

std::vector<std::string> captured_output::error_lines() const
{
	return lines_of(error_text());
}

std::vector<log_record> captured_output::records() const
{
	return parse_log(text());
}

std::vector<std::string> captured_output::messages() const
{
	std::vector<std::string> found;
	for (const log_record &record : records())
		found.push_back(record.message);
	return found;
}

std::vector<std::string> captured_output::messages(const std::string &level) const
{
	std::vector<std::string> found;
	for (const log_record &record : records())
		if (record.level == level)
			found.push_back(record.message);
	return found;
}

size_t captured_output::count(const std::string &level, const std::string &source, const std::string &message) const
{
	std::vector<log_record> all = records();
	return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const log_record &record) {
		return record.level == level && record.source == source && record.message == message;
	}));
}

bool captured_output::has_line(const std::string &level, const std::string &source, const std::string &message) const
{
	return count(level, source, message) != 0;
}

void captured_output::clear()
{
	fflush(stdout);
	fflush(stderr);
	for (stream *each : {&out, &error}) {
		if (testing::Test::HasFailure())
			show(each->saved, content(each->file));
		require(ftruncate(each->file, 0) == 0, "captured_output");
		require(lseek(each->file, 0, SEEK_SET) == 0, "captured_output");
	}
}

std::vector<log_record> parse_log(const std::string &text)
{
	std::vector<log_record> records;
	for (const std::string &line : lines_of(text))
		records.push_back(parse_line(line));
	return records;
}
