#include "runner.h"

#include <algorithm>
#include <memory>

#include <poll.h>
#include <sys/random.h>

#include "broadcasts.h"
#include "can_link.h"
#include "isotp_channel.h"
#include "uds_log.h"

namespace
{

// Pauses between attempts to open the bus.
constexpr int first_pause_ms = 250;
constexpr int longest_pause_ms = 5000;

// Frames taken before the ECUs get to answer, so that a bus full of other traffic does not silence them.
constexpr int frames_per_turn = 64;

// How soon a frame that the link had no room for is tried again.
constexpr int64_t no_room_pause_us = 1000;

using channel_owner = std::unique_ptr<isotp_channel, decltype(&isotp_channel_free)>;
using server_owner = std::unique_ptr<uds_server, decltype(&uds_server_free)>;

struct virtual_ecu {
	const ecu_description *description;
	server_owner server = {nullptr, uds_server_free};
	channel_owner physical = {nullptr, isotp_channel_free};
	std::vector<channel_owner> functional = {};
	bool sends = false; // an answer is on its way through the physical channel
};

struct runner {
	const runner_settings *settings;
	std::vector<virtual_ecu> ecus;
	broadcast_schedule broadcasts;
	can_link link;
	bool no_room; // the link took a frame no more in this turn
};

uint32_t random_seed()
{
	uint32_t seed = 0;
	// getrandom cannot fail for so few bytes; should it, the seed is poor, but never the 0 of an unlocked ECU.
	(void)!getrandom(&seed, sizeof(seed), 0);
	return seed != 0 ? seed : 1;
}

channel_owner make_channel(const ecu_description &ecu, uint32_t rx_id, bool functional)
{
	isotp_settings settings = isotp_default_settings(ecu.response_id, rx_id);
	settings.block_size = static_cast<uint8_t>(ecu.block_size);
	settings.st_min = static_cast<uint8_t>(ecu.st_min);
	settings.single_frames_only = functional;
	return {isotp_channel_new(&settings), isotp_channel_free};
}

bool make_ecu(const ecu_description &description, uds_key_function key_of, virtual_ecu *ecu)
{
	ecu->description = &description;
	ecu->server.reset(uds_server_new(&description, key_of, random_seed));
	ecu->physical = make_channel(description, description.request_id, false);
	for (const uint32_t id : description.functional_ids)
		ecu->functional.push_back(make_channel(description, id, true));
	return ecu->physical != nullptr &&
			std::all_of(ecu->functional.begin(), ecu->functional.end(),
					[](const channel_owner &channel) { return channel != nullptr; });
}

// The PDU of a channel goes to the server.
void hand_over(
		const runner &run, virtual_ecu *ecu, const isotp_channel *channel, uds_addressing addressing, int64_t now_us)
{
	size_t length = 0;
	const uint8_t *pdu = isotp_pdu(channel, &length);
	request_record_request(run.settings->record, ecu->description->name, {pdu, length}, addressing);
	uds_server_request(ecu->server.get(), {pdu, length}, addressing, now_us);
}

void take_frame(runner *run, const bus_frame &frame, int64_t now_us)
{
	for (virtual_ecu &ecu : run->ecus) {
		if (isotp_take_frame(ecu.physical.get(), &frame, now_us) == ISOTP_EVENT_PDU)
			hand_over(*run, &ecu, ecu.physical.get(), UDS_PHYSICAL, now_us);
		for (const channel_owner &channel : ecu.functional)
			if (isotp_take_frame(channel.get(), &frame, now_us) == ISOTP_EVENT_PDU)
				hand_over(*run, &ecu, channel.get(), UDS_FUNCTIONAL, now_us);
	}
}

// An answer that is due goes into the channel when the one before has left it.
void feed_channel(const runner &run, virtual_ecu *ecu, int64_t now_us)
{
	isotp_channel *channel = ecu->physical.get();
	if (isotp_sending(channel) == ISOTP_SEND_UNDER_WAY)
		return;
	if (ecu->sends && isotp_sending(channel) == ISOTP_SEND_FAILED)
		(void)fprintf(stderr, "quillet-ecu: %s: an answer was not delivered: %s\n", ecu->description->name.c_str(),
				isotp_result_name(isotp_send_result(channel))); // nothing to do about a lost message
	std::vector<uint8_t> answer;
	ecu->sends = uds_server_take_answer(ecu->server.get(), now_us, &answer);
	if (!ecu->sends)
		return;
	request_record_answer(run.settings->record, ecu->description->name, answer);
	(void)isotp_send(channel, answer.data(), answer.size(), now_us); // idle, and 1 to 8191 bytes: cannot fail
}

// Answers and flow controls of one ECU go onto the bus as far as they are due. False: the link is dead.
bool send_frames(runner *run, virtual_ecu *ecu, int64_t now_us)
{
	isotp_channel *channel = ecu->physical.get();
	(void)isotp_step(channel, now_us); // a reception that has failed is the tester's to repeat
	for (;;) {
		feed_channel(*run, ecu, now_us);
		bus_frame frame = {};
		const isotp_out which = isotp_next_frame(channel, &frame, now_us);
		if (which == ISOTP_OUT_NONE)
			return true;
		const int result = run->link.send(run->link.state, &frame);
		if (result < 0)
			return false;
		if (result > 0) {
			run->no_room = true;
			return true;
		}
		isotp_frame_sent(channel, which, now_us);
	}
}

// The same for the frames that the ECUs send by themselves.
bool send_broadcasts(runner *run, int64_t now_us)
{
	while (broadcast_entry *entry = broadcasts_due(&run->broadcasts, now_us)) {
		const broadcast_description &broadcast = *entry->frame;
		bus_frame frame = {.id = broadcast.id,
				.is_extended = bus_id_is_extended(broadcast.id),
				.length = static_cast<uint8_t>(broadcast.data.size()),
				.data = {}};
		std::copy(broadcast.data.begin(), broadcast.data.end(), frame.data);
		const int result = run->link.send(run->link.state, &frame);
		if (result < 0)
			return false;
		if (result > 0) {
			run->no_room = true;
			return true;
		}
		broadcasts_sent(entry, now_us);
	}
	return true;
}

// The next moment at which something is to be done without a frame coming in before.
int64_t next_deadline(const runner &run, int64_t now_us)
{
	int64_t deadline_us = run.no_room ? now_us + no_room_pause_us : isotp_never;
	const int64_t broadcast_us = broadcasts_deadline(run.broadcasts);
	if (!run.no_room || broadcast_us > now_us)
		deadline_us = std::min(deadline_us, broadcast_us);
	for (const virtual_ecu &ecu : run.ecus) {
		const int64_t channel_us = isotp_deadline(ecu.physical.get());
		const bool sending = isotp_sending(ecu.physical.get()) == ISOTP_SEND_UNDER_WAY;
		if (!run.no_room || channel_us > now_us)
			deadline_us = std::min(deadline_us, channel_us);
		if (!sending)
			deadline_us = std::min(deadline_us, uds_server_deadline(ecu.server.get()));
	}
	return deadline_us;
}

enum turn_result {
	TURN_WAIT, // everything that is due is done
	TURN_MORE, // there may be more frames
	TURN_DEAD, // the link is dead
};

turn_result take_turn(runner *run)
{
	const can_link &link = run->link;
	bus_frame frame = {};
	int received = 1;
	for (int count = 0; count < frames_per_turn && received == 1; count++) {
		received = link.receive(link.state, &frame);
		if (received == 1)
			take_frame(run, frame, link.now_us(link.state));
	}
	if (received < 0)
		return TURN_DEAD;
	run->no_room = false;
	for (virtual_ecu &ecu : run->ecus)
		if (!send_frames(run, &ecu, link.now_us(link.state)))
			return TURN_DEAD;
	if (!send_broadcasts(run, link.now_us(link.state)))
		return TURN_DEAD;
	return received == 1 ? TURN_MORE : TURN_WAIT;
}

bool stop_asked(const runner &run, int timeout_ms)
{
	pollfd stop = {run.settings->stop_descriptor, POLLIN, 0};
	return poll(&stop, 1, timeout_ms) > 0;
}

// Serves until the link is dead (true) or the runner is to stop (false).
bool serve(runner *run)
{
	const can_link &link = run->link;
	while (!stop_asked(*run, 0)) {
		const turn_result turn = take_turn(run);
		if (turn == TURN_DEAD)
			return true;
		const int64_t now_us = link.now_us(link.state);
		const int64_t deadline_us = next_deadline(*run, now_us);
		if (turn == TURN_WAIT && deadline_us > now_us)
			link.wait(link.state, run->settings->stop_descriptor, deadline_us);
	}
	return false;
}

// What was on its way over a link that is gone is forgotten: half messages, and answers that fell due meanwhile.
void forget_traffic(runner *run)
{
	const int64_t now_us = run->link.now_us(run->link.state);
	std::vector<uint8_t> answer;
	for (virtual_ecu &ecu : run->ecus) {
		isotp_abort_send(ecu.physical.get());
		isotp_drop_reception(ecu.physical.get());
		ecu.sends = false;
		while (uds_server_take_answer(ecu.server.get(), now_us, &answer))
			continue;
	}
}

// Opens the bus, however long it takes; false when the runner is to stop. One message for all failures in a row.
bool open_bus(runner *run)
{
	const char *bus = run->settings->bus.c_str();
	int pause_ms = first_pause_ms;
	while (can_link_open(&run->link, bus, CAN_LINK_TAKES_ALL, 0) != 0) {
		if (pause_ms == first_pause_ms)
			(void)fprintf(stderr, "quillet-ecu: bus \"%s\" cannot be opened; trying again until it can\n", bus);
		uds_log_set_verbosity(-1); // the reason was told; it is not told again for every attempt
		if (stop_asked(*run, pause_ms))
			return false;
		pause_ms = std::min(pause_ms * 2, longest_pause_ms);
	}
	uds_log_set_verbosity(UDS_LOG_ERR);
	return true;
}

void say_serving(const runner &run)
{
	const size_t count = run.ecus.size();
	printf("serving %zu %s on %s\n", count, count == 1 ? "ECU" : "ECUs", run.settings->bus.c_str());
	(void)fflush(stdout); // a reader that has gone is no reason to stop serving
}

} // namespace

bool runner_run(const runner_settings &settings)
{
	runner run = {&settings, {}, {}, {}, false};
	for (size_t index = 0; index < settings.bench->ecus.size(); index++) {
		virtual_ecu ecu = {};
		if (!make_ecu(settings.bench->ecus[index], settings.key_functions[index], &ecu))
			return false;
		run.ecus.push_back(std::move(ecu));
	}
	while (open_bus(&run)) {
		forget_traffic(&run);
		run.broadcasts = broadcasts_start(*settings.bench, run.link.now_us(run.link.state));
		say_serving(run);
		const bool lost = serve(&run);
		can_link_close(&run.link);
		if (!lost)
			break;
		(void)fprintf(stderr, "quillet-ecu: bus \"%s\" is gone; trying again until it is back\n", settings.bus.c_str());
	}
	return true;
}
