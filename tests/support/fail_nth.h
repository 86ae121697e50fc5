// Lets the nth call of a system or library function fail, to walk every failure path of a constructor. Only calls
// made by the objects of the test program itself are seen (the linker's --wrap), not those inside shared libraries.
//
//   for (unsigned nth = 1;; ++nth) {
//       fail_nth failure("calloc", nth);
//       thing *made = thing_new();
//       if (!failure.fired()) { thing_free(made); break; } // fewer than nth calls: the sweep is complete
//       EXPECT_EQ(made, nullptr);
//   }
#pragma once

#include <cerrno>
#include <string>
#include <vector>

class fail_nth
{
public:
	enum threads { any_thread, this_thread, other_threads };

	// Arms one function; several guards may live at once for different functions. Calls are counted from 1; with nth
	// 0 they are only counted. A failing call returns what the function returns on failure, with errno set to error,
	// or error itself (pthread_*; a failing pthread_mutex_unlock unlocks all the same). A name that is not in
	// functions() ends the program.
	fail_nth(const char *function, unsigned nth, int error = ENOMEM, threads whose = any_thread);
	~fail_nth();
	fail_nth(const fail_nth &) = delete;
	fail_nth &operator=(const fail_nth &) = delete;

	bool fired() const;     // the nth call came and failed
	unsigned calls() const; // made so far, the failed one included

	// Waits until so many calls have been made, on other threads: false after ten seconds.
	bool wait_for_calls(unsigned count) const;

	static std::vector<std::string> functions();

private:
	int slot;
};
