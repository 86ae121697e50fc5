// What the process writes to its standard streams while a capture lives, and the agent's log lines in it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// One line of standard output. A line that is not the log's has an empty level and source.
struct log_record {
	std::string level; // the label word without colours and blanks: "ERR", "INFO", ...; empty for an empty label
	std::string source;
	int line; // of the call site
	std::string message;
};

// Redirects the file descriptors until the end of the scope, so that lines of every thread and library are caught.
// Captures do not nest. When the test has failed by then, what was caught is shown.
class captured_output
{
public:
	captured_output();
	~captured_output();
	captured_output(const captured_output &) = delete;
	captured_output &operator=(const captured_output &) = delete;

	// What has been written so far, flushed first.
	std::string text() const;       // standard output
	std::string error_text() const; // standard error
	std::vector<std::string> error_lines() const;

	std::vector<log_record> records() const;
	std::vector<std::string> messages() const;                         // of every line, in order
	std::vector<std::string> messages(const std::string &level) const; // of the lines of one level
	size_t count(const std::string &level, const std::string &source, const std::string &message) const;
	bool has_line(const std::string &level, const std::string &source, const std::string &message) const;

	// Forgets what has been caught.
	void clear();

private:
	struct stream {
		int descriptor;
		int saved;
		int file;
	};
	stream out, error;
};

// The records of a text as standard output had it.
std::vector<log_record> parse_log(const std::string &text);
