// Plays a row of the conformance table on a bench: a node of ours, and a tester on the other side of its bus.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "row.h"

struct seen_frame {
	int64_t at_us;
	bus_frame frame;
};

struct ended_call {
	int64_t at_us;
	int outcome; // OUTCOME_FAILED where the kind of a failure cannot be known
	bytes pdu;   // of a receive that went well
};

class row_bench
{
public:
	virtual ~row_bench() = default;
	virtual int64_t now_us() const = 0;
	virtual void begin_send(const bytes &pdu) = 0;
	virtual void begin_receive(int timeout_ms) = 0;
	virtual bool put(const bus_frame &frame) = 0;
	virtual void stop_bus(bool stopped) = 0;

	// Each waits for its event until that moment at the latest; false when it has not come by then.
	virtual bool next_frame(int64_t until_us, seen_frame *seen) = 0;
	virtual bool next_sent(int64_t until_us, ended_call *ended) = 0;
	virtual bool next_received(int64_t until_us, ended_call *ended) = 0;
	virtual void wait_until(int64_t until_us) = 0;
};

// The identifiers of a row: its own, or its number's.
struct row_ids {
	uint32_t our_id;
	uint32_t their_id; // 0 for a functional row
	uint32_t stranger_id;
};
row_ids ids_of_row(size_t index, const row_settings &settings);

// The pure channel on a clock of its own.
std::unique_ptr<row_bench> new_pure_bench(const row_ids &ids, const row_settings &settings);

// libudsutils behind its C entry points, on a CAN interface or a bus of the CAN server that QUILLET_CAN_SERVER tells
// of. Sets QUILLET_CAN_PADDING meanwhile; calls wait for each other. NULL when it cannot be opened.
std::unique_ptr<row_bench> new_library_bench(const char *ifname, const row_ids &ids, const row_settings &settings);

// How far an event may be from its moment: one that a timer brings about, and one that has only to come. On links the
// latter comes late when a long message fills a transmit queue that our side then waits for.
struct play_tolerance {
	int64_t timed_us;
	int64_t at_once_us;
};

// Plays the row, and an exchange behind it that has to go well. An empty text, or what went wrong.
std::string play_row(const row &one, const row_ids &ids, row_bench &bench, const play_tolerance &tolerance);

// Many rows at once on links.
struct play_place {
	std::vector<std::string> interfaces; // rows are dealt out to them
	play_tolerance tolerance;
	unsigned jobs;
	bool is_exact; // rows of ROW_EXACT are played, too
};

struct played_row {
	const row *played;
	std::string failure; // empty when it went well
};

// In the table's order. What the library says of each failed call meanwhile is compared with what the rows expect of
// it; a difference is told as a failure of its own, without a row.
std::vector<played_row> play_rows(const std::vector<row> &rows, const play_place &place);
