// Many rows at once: most of a row's time is waiting for a time-out.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <numeric>
#include <thread>
#include <unistd.h>

#include "play_row.h"
#include "udsutils.h"

namespace
{

// Standard error in a file for a while.
class error_file
{
public:
	error_file() : file_(tmpfile()), saved_(dup(STDERR_FILENO))
	{
		fflush(stderr);
		if (file_ != nullptr)
			dup2(fileno(file_), STDERR_FILENO);
	}

	// What was written to it; standard error is as it was from here on.
	std::string end()
	{
		fflush(stderr);
		dup2(saved_, STDERR_FILENO);
		close(saved_);
		std::string text;
		if (file_ == nullptr)
			return text;
		rewind(file_);
		char part[4096];
		while (const size_t count = fread(part, 1, sizeof(part), file_))
			text.append(part, count);
		fclose(file_);
		return text;
	}

private:
	FILE *file_;
	int saved_;
};

int64_t duration_us(const row &one)
{
	int64_t sum_us = 0;
	for (const step &what : one.steps.steps)
		if (what.kind != STEP_RECEIVE)
			sum_us += what.us;
	return sum_us;
}

bool is_played(const row &one, const play_place &place)
{
	return one.settings.scope == ROW_EVERYWHERE || (one.settings.scope == ROW_EXACT && place.is_exact);
}

std::string play_one(const row &one, size_t index, const play_place &place)
{
	const row_ids ids = ids_of_row(index, one.settings);
	const std::string &interface = place.interfaces[index % place.interfaces.size()];
	const std::unique_ptr<row_bench> bench = new_library_bench(interface.c_str(), ids, one.settings);
	return bench != nullptr ? play_row(one, ids, *bench, place.tolerance) : "cannot be opened on " + interface;
}

void play_all(const std::vector<row> &rows, const std::vector<size_t> &order, const play_place &place,
		std::vector<std::string> &failures)
{
	std::atomic<size_t> next = 0;
	std::vector<std::thread> workers;
	for (unsigned i = 0; i < place.jobs; i++)
		workers.emplace_back([&] {
			for (size_t at = next++; at < order.size(); at = next++)
				failures[order[at]] = play_one(rows[order[at]], order[at], place);
		});
	for (std::thread &worker : workers)
		worker.join();
}

using kinds = std::map<std::string, int>;

// What the library has to say of the calls that fail in the rows played.
kinds expected_kinds(const std::vector<row> &rows, const std::vector<size_t> &order)
{
	kinds result;
	for (const size_t index : order) {
		size_t length = 0; // of the last request
		for (const step &what : rows[index].steps.steps) {
			length = what.kind == STEP_SEND ? what.data.size() : length;
			if (what.kind == STEP_SENT && what.outcome == OUTCOME_REFUSED)
				result["a request of " + std::to_string(length) + " bytes cannot be sent"]++;
			const bool is_call = what.kind == STEP_SENT || what.kind == STEP_RECEIVED;
			if (is_call && what.outcome != ISOTP_OK && what.outcome < isotp_result_count)
				result[std::string(what.kind == STEP_SENT ? "a request was not sent whole: "
														  : "an answer was not received whole: ") +
						isotp_result_name(static_cast<isotp_result>(what.outcome))]++;
		}
	}
	return result;
}

kinds said_kinds(const std::string &text)
{
	static const std::string prefix = "udsutils: ";
	kinds result;
	for (size_t at = 0; at < text.size();) {
		const size_t end = std::min(text.find('\n', at), text.size());
		const std::string line = text.substr(at, end - at);
		result[line.rfind(prefix, 0) == 0 ? line.substr(prefix.size()) : line]++;
		at = end + 1;
	}
	return result;
}

std::string difference(const kinds &expected, kinds said)
{
	std::string text;
	for (const auto &[what, count] : expected) {
		if (said[what] != count)
			text += "\n  \"" + what + "\" was said " + std::to_string(said[what]) + " times, not " +
					std::to_string(count);
		said.erase(what);
	}
	for (const auto &[what, count] : said)
		if (count != 0)
			text += "\n  \"" + what + "\" was said " + std::to_string(count) + " times";
	return text;
}

} // namespace

std::vector<played_row> play_rows(const std::vector<row> &rows, const play_place &place)
{
	std::vector<size_t> order;
	for (size_t i = 0; i < rows.size(); i++)
		if (is_played(rows[i], place))
			order.push_back(i);
	std::vector<size_t> longest_first = order;
	std::stable_sort(longest_first.begin(), longest_first.end(),
			[&](size_t a, size_t b) { return duration_us(rows[a]) > duration_us(rows[b]); });

	movra_uds_util_debug_init(1); // one line a failed call
	std::vector<std::string> failures(rows.size());
	error_file errors;
	play_all(rows, longest_first, place, failures);
	const std::string said = errors.end();
	movra_uds_util_debug_init(0);

	std::vector<played_row> played;
	for (const size_t index : order)
		played.push_back({&rows[index], failures[index]});
	const std::string differs = difference(expected_kinds(rows, order), said_kinds(said));
	if (!differs.empty())
		played.push_back({nullptr, "the library's messages differ:" + differs});
	return played;
}
