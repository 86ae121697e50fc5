#include "play_row.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

// Room for a row's identifiers beside those that rows choose for themselves.
static constexpr uint32_t ids_per_row = 4;
static constexpr uint32_t short_ids = 0x010;
static constexpr uint32_t long_ids = 0x0C000000;

row_ids ids_of_row(size_t index, const row_settings &settings)
{
	const uint32_t base = (settings.is_extended ? long_ids : short_ids) + ids_per_row * static_cast<uint32_t>(index);
	row_ids ids = {base, base + 1, base + 2};
	if (settings.our_id != 0)
		ids.our_id = settings.our_id;
	if (settings.their_id != 0)
		ids.their_id = settings.their_id;
	if (settings.is_functional)
		ids.their_id = 0;
	return ids;
}

// A row under way. Two readings of each moment: when it was, and when it was to be at the earliest.
struct play {
	const row &played;
	const row_ids &ids;
	row_bench &bench;
	play_tolerance tolerance;
	int64_t earliest_us; // the sum of all gaps so far: nothing of ours may come before it, whatever was late
	int64_t last_us;     // when the last step was
};

static std::string text_of(const bytes &data)
{
	std::string text = std::to_string(data.size()) + " bytes";
	char number[4];
	for (size_t i = 0; i < data.size() && i < 10; i++) {
		(void)snprintf(number, sizeof(number), " %02X", unsigned{data[i]});
		text += number;
	}
	return text;
}

static std::string name_of(int outcome)
{
	static const char *const names[] = {"refused", "no answer", "failed", "failed, and wrote to the caller"};
	return outcome < isotp_result_count ? isotp_result_name(static_cast<isotp_result>(outcome))
										: names[outcome - isotp_result_count];
}

static int64_t tolerance_of(const play &one, int64_t gap_us)
{
	return gap_us == 0 ? one.tolerance.at_once_us : one.tolerance.timed_us;
}

static int64_t latest_of(const play &one, int64_t gap_us)
{
	return one.last_us + gap_us + tolerance_of(one, gap_us);
}

// Checks the moment of an event and moves on to it.
static std::string check_time(play &one, int64_t gap_us, int64_t at_us)
{
	const int64_t late_us = at_us - (one.last_us + gap_us);
	one.earliest_us += gap_us;
	one.last_us = at_us;
	if (late_us > tolerance_of(one, gap_us))
		return std::to_string(late_us) + " us too late";
	if (late_us < -tolerance_of(one, gap_us))
		return std::to_string(-late_us) + " us too early";
	if (at_us < one.earliest_us)
		return std::to_string(one.earliest_us - at_us) + " us before its time";
	return "";
}

static std::string play_see(play &one, const step &what)
{
	bytes expected = what.data;
	expected.resize(8, one.played.settings.padding);
	seen_frame seen{};
	if (!one.bench.next_frame(latest_of(one, what.us), &seen))
		return "no frame came";
	const bytes data(seen.frame.data, seen.frame.data + seen.frame.length);
	if (data != expected)
		return "came " + text_of(data);
	if (seen.frame.id != one.ids.our_id || seen.frame.is_extended != bus_id_is_extended(one.ids.our_id))
		return "came with another identifier";
	return check_time(one, what.us, seen.at_us);
}

static std::string play_quiet(play &one, const step &what)
{
	const int64_t until_us = one.last_us + what.us;
	seen_frame seen{};
	if (one.bench.next_frame(until_us, &seen))
		return "came " + text_of(bytes(seen.frame.data, seen.frame.data + seen.frame.length));
	one.earliest_us += what.us;
	one.last_us = until_us;
	return "";
}

static std::string check_call(play &one, const step &what, const ended_call &ended)
{
	const bool is_the_same = ended.outcome == what.outcome ||
			(ended.outcome == OUTCOME_FAILED && what.outcome != ISOTP_OK && what.outcome != OUTCOME_WROTE);
	if (!is_the_same)
		return "ended with " + name_of(ended.outcome);
	if (what.kind == STEP_RECEIVED && ended.pdu != what.data)
		return "was " + text_of(ended.pdu);
	return check_time(one, what.us, ended.at_us);
}

static std::string play_sent(play &one, const step &what)
{
	ended_call ended{};
	if (!one.bench.next_sent(latest_of(one, what.us), &ended))
		return "has not ended";
	return check_call(one, what, ended);
}

static std::string play_received(play &one, const step &what)
{
	ended_call ended{};
	if (!one.bench.next_received(latest_of(one, what.us), &ended))
		return "has not ended";
	return check_call(one, what, ended);
}

static std::string play_put(play &one, const step &what)
{
	const uint32_t senders[] = {one.ids.their_id, one.ids.their_id, one.ids.stranger_id, one.ids.our_id};
	bus_frame frame{};
	frame.id = senders[what.who];
	frame.is_extended = bus_id_is_extended(frame.id) != (what.who == AS_OTHER_FORMAT);
	frame.length = static_cast<uint8_t>(what.data.size());
	std::copy(what.data.begin(), what.data.end(), frame.data);
	one.bench.wait_until(one.last_us + what.us);
	one.earliest_us += what.us;
	one.last_us = one.bench.now_us();
	return one.bench.put(frame) ? "" : "the bus does not take it";
}

static std::string play_send(play &one, const step &what)
{
	one.last_us = one.bench.now_us();
	one.bench.begin_send(what.data);
	return "";
}

static std::string play_receive(play &one, const step &what)
{
	one.last_us = one.bench.now_us();
	one.bench.begin_receive(static_cast<int>(what.us / 1000));
	return "";
}

static std::string play_stop_bus(play &one, const step &what)
{
	one.bench.stop_bus(what.kind == STEP_STOP_BUS);
	return "";
}

struct step_player {
	const char *name;
	std::string (*run)(play &one, const step &what);
};

static const step_player players[] = {{"send", play_send}, {"receive", play_receive}, {"our send", play_sent},
		{"our receive", play_received}, {"put", play_put}, {"see", play_see}, {"quiet", play_quiet},
		{"stop bus", play_stop_bus}, {"start bus", play_stop_bus}};
static_assert(std::size(players) == STEP_START_BUS + 1);

static std::string play_script(play &one, const script &steps, const char *which)
{
	for (size_t i = 0; i < steps.steps.size(); i++) {
		const step &what = steps.steps[i];
		const std::string wrong = players[what.kind].run(one, what);
		if (!wrong.empty())
			return std::string(which) + " step " + std::to_string(i + 1) + ", " + players[what.kind].name + " (" +
					text_of(what.data) + (what.outcome != 0 ? ", " + name_of(what.outcome) : "") + "): " + wrong;
	}
	return "";
}

std::string play_row(const row &one, const row_ids &ids, row_bench &bench, const play_tolerance &tolerance)
{
	play now = {one, ids, bench, tolerance, bench.now_us(), bench.now_us()};
	const std::string wrong = play_script(now, one.steps, "row");
	if (!wrong.empty())
		return wrong;
	// Whatever has happened, the next exchange is right.
	const script next =
			one.settings.is_functional ? whole_send(2) : script{whole_send(2), whole_receive(20, one.settings)};
	return play_script(now, {next, quiet(0)}, "next exchange,");
}
