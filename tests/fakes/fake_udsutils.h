// fake_udsutils: the diagnostic transport library as a script and a record. Link this instead of the library.
//
//     fake_ecu ecu;                                             // from here on all calls go to this script
//     ecu.on({0x22, 0xF1, 0x90}, {{0x62, 0xF1, 0x90, 'W'}});    // request → answers, as often as it is sent
//     ecu.answers({{0x7F, 0x31, 0x78}, {0x71, 0x01}});          // or: answers in order, to whatever is sent
//     ...
//     EXPECT_EQ(ecu.requests(), (std::vector<fake_bytes>{{0x22, 0xF1, 0x90}}));
//     EXPECT_EQ(ecu.names(), (std::vector<std::string>{"transport_interface_availibility", ...}));
//
// A receive for which the script has nothing fails, its time-out passing on the fake clock. Nothing ever sleeps. All
// functions may be called from any thread; scripting before the calls that use it, or in a hook.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "udsutils.h"

using fake_bytes = std::vector<uint8_t>;

// One call as it was made; members that the function does not have keep their first value.
struct fake_uds_call {
	std::string function = {};
	int kind = -1;
	int handle = -1;         // also the descriptor of receive_can_frame
	std::string ifname = {}; // of the interface checks and open_can_port
	fake_bytes data = {};    // send_diag_command: the request
	uint32_t length = 0;     // send: its length; receive: the buffer's size as given
	int timeout_ms = -1;     // receive
	bool has_params = false; // transport_init was given a block
	uds_transport_params params = {};
	uint32_t can_id = 0; // open_can_port
	int verbosity = -1;  // movra_uds_util_debug_init
	int64_t at_ms = 0;   // the fake clock at the call
};

// One step of an ECU's answer.
struct fake_answer {
	fake_bytes bytes;
	// Of the receive. Below 0 the bytes, if any, are written all the same, as by a careless library.
	int result = 0;
	// On the fake clock; more than the receive's time-out makes the receive fail first.
	int64_t delay_ms = 0;
	std::function<void()> hook; // runs on the receiving thread before the answer is given, no lock held
	bool forever = false;       // given again and again

	fake_answer(std::initializer_list<uint8_t> pdu) : bytes(pdu)
	{
	}
	explicit fake_answer(fake_bytes pdu, int receive_result = 0, int64_t delay = 0, std::function<void()> call = {},
			bool again = false)
			: bytes(std::move(pdu)), result(receive_result), delay_ms(delay), hook(std::move(call)), forever(again)
	{
	}
};

class fake_ecu
{
public:
	fake_ecu();  // becomes the script of all calls; one at a time
	~fake_ecu(); // calls fail from now on; waits for those under way on other threads
	fake_ecu(const fake_ecu &) = delete;
	fake_ecu &operator=(const fake_ecu &) = delete;

	// What the ECU answers to exactly this request. Rows of the same request are used in turn, the last one from then
	// on every time. With an identifier the row is only for channels with this phy_req_id. A send drops what was left
	// of the answers to the one before.
	void on(fake_bytes request, std::vector<fake_answer> answers, uint32_t phy_req_id = 0);
	// Answers to whatever is sent, in order, for requests without a row.
	void answers(std::vector<fake_answer> answers);
	// What the ECU with this phy_req_id answers, in order, to whatever is sent on any channel: a functional request
	// goes out on another channel than the one it is answered on.
	void answers_from(uint32_t phy_req_id, std::vector<fake_answer> answers);
	// Forgets the answers that have not been given, the rows of on() excepted.
	void drop_answers();
	// Frames that receive_can_frame gives on ports of this identifier.
	void frames(uint32_t can_id, std::vector<fake_answer> frames);

	// Results, and the clock. The script sets them before the calls.
	int available = 1;                            // transport_interface_availibility
	int up = 1;                                   // transport_interface_status
	std::map<std::string, int> available_by_name; // first choice of the two checks
	std::map<std::string, int> up_by_name;
	static constexpr int handle_zero = INT32_MIN; // in init_results: the handle 0
	std::deque<int> init_results;                 // transport_init; when empty or 0, handles from 1 on
	std::deque<int> send_results;                 // send_diag_command; when empty, 0
	int deinit_result = 0;
	std::deque<int> port_results;                       // open_can_port below 0; when empty or 0, a real descriptor
	std::function<void(const fake_uds_call &)> on_call; // after the call was recorded, on its thread, no lock held

	// The record. All of it in the order of the calls.
	std::vector<fake_uds_call> calls() const;
	std::vector<fake_uds_call> calls(const std::string &function) const;
	std::vector<std::string> names() const;
	std::vector<fake_bytes> requests() const;
	std::vector<int> receive_timeouts_ms() const;
	int64_t now_ms() const;
	static bool idle(); // no call is under way; what a call's hooks did before is seen from here on

private:
	friend struct fake_ecu_access;
	struct row {
		fake_bytes request;
		uint32_t phy_req_id;
		std::vector<fake_answer> answers;
		bool used;
	};

	mutable std::mutex lock;
	std::vector<row> rows;
	std::deque<fake_answer> unasked;
	std::map<uint32_t, std::deque<fake_answer>> by_ecu;
	std::map<int, std::deque<fake_answer>> pending;         // by handle
	std::map<uint32_t, std::deque<fake_answer>> can_frames; // by identifier
	std::map<int, uint32_t> channel_ids;                    // handle → phy_req_id
	std::map<int, uint32_t> port_ids;                       // descriptor → identifier
	std::vector<fake_uds_call> record;
	int last_handle = 0;
	int64_t clock_ms = 0;
};
