// The wait for the replies to one request: which messages belong to it, when it is over and how it ended. Pure: the
// caller brings the messages and the clock, in milliseconds from any start.
#pragma once

#include <cstdint>
#include <string>

// What a message is to a request.
enum class reply_kind {
	other,       // not a reply to this request
	reply,       // a reply
	nothing_ran, // the reply to a routine of which no command was sent
	error,       // an error reply
};

reply_kind classify_reply(const std::string &text, const std::string &reply_id);

struct reply_wait {
	std::string agent;
	std::string reply_id;
	int64_t deadline_ms = 0;
	bool answered = false; // a reply has come
	bool failed = false;   // it was, or was followed by, an error reply
	bool over = false;
};

// When a routine could not be begun, its reply is followed by an error reply within this time.
constexpr int64_t error_reply_wait_ms = 500;

// agent is the unit address that the request went to.
reply_wait reply_wait_begin(const std::string &agent, const std::string &reply_id, int64_t now_ms, int64_t timeout_ms);

// Looks at a message; true when it is one of the replies waited for. Only the agent that was asked can give them: what
// another unit answers late to an earlier request may name the same id.
bool reply_wait_take(reply_wait &wait, const std::string &sender, const std::string &text, int64_t now_ms);

bool reply_wait_is_over(const reply_wait &wait, int64_t now_ms);
