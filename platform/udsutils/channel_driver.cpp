#include "channel_driver.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/eventfd.h>
#include <type_traits>
#include <unistd.h>

#include "guards.h"
#include "uds_log.h"

static constexpr int frames_per_turn = 64;       // taken before a thread looks at its own business again
static constexpr int frames_dropped_max = 16384; // before a send; 8 MiB of the kernel hold 11,000
static constexpr size_t arrivals_max = 16;       // PDUs kept for the next receive
static constexpr int64_t full_retry_us = 1000;   // a transmit queue that was full
static constexpr int64_t drop_us = 100000;       // for dropping them; a server that pours them out never ends

// A PDU for the receiver, or the end of a reception without one.
struct arrival {
	isotp_result result;
	size_t length;
	uint8_t pdu[isotp_pdu_max];
};

// What one thread at a time does with a channel.
struct role {
	int bell;      // an event descriptor that wakes the thread out of its wait
	bool is_taken; // a thread has the role
	bool is_rung;  // then the bell is readable
};

struct channel_driver {
	can_link link;
	isotp_channel *channel; // owned
	bool only_sends;

	pthread_mutex_t lock; // all below, the channel, and the link but for its wait
	pthread_cond_t turn;
	role sender;
	role receiver;
	bool has_ended;
	bool is_dead;           // the link
	bool is_full;           // the link took a frame last time, or it did not
	bool reception_dropped; // by a send; the receiver's time begins anew
	int64_t begun_us;       // when the reception under way began; INT64_MIN: in time
	arrival *arrivals;      // owned: a ring of arrivals_max
	size_t oldest_arrival;
	size_t arrivals_count;
};
static_assert(std::is_trivially_copyable_v<channel_driver> && std::is_trivially_copyable_v<arrival>);

// Memory and locks.
static channel_driver *new_driver(void)
{
	auto *driver = static_cast<channel_driver *>(calloc(1, sizeof(channel_driver)));
	if (driver == nullptr)
		return nullptr;
	driver->sender.bell = -1;
	driver->receiver.bell = -1;
	if (pthread_mutex_init(&driver->lock, nullptr) != 0) {
		free(driver);
		return nullptr;
	}
	if (pthread_cond_init(&driver->turn, nullptr) != 0) {
		(void)pthread_mutex_destroy(&driver->lock); // nobody holds it
		free(driver);
		return nullptr;
	}
	return driver;
}

// Everything but the link. Whatever a channel will need it has from here on: nothing is allocated later.
static channel_driver *make_driver(const isotp_settings *settings)
{
	scoped<channel_driver, channel_driver_free> driver(new_driver());
	if (!driver)
		return nullptr;

	driver->sender.bell = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
	driver->receiver.bell = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
	if (driver->sender.bell < 0 || driver->receiver.bell < 0)
		return nullptr;

	driver->channel = isotp_channel_new(settings);
	if (driver->channel == nullptr)
		return nullptr;

	// Not zeroed: most of it is never touched.
	driver->arrivals = static_cast<arrival *>(malloc(arrivals_max * sizeof(arrival)));
	if (driver->arrivals == nullptr)
		return nullptr;

	driver->only_sends = settings->rx_id == 0;
	return driver.release();
}

channel_driver *channel_driver_new(const isotp_settings *settings, can_link link)
{
	channel_driver *driver = make_driver(settings);
	if (driver == nullptr) {
		uds_log(UDS_LOG_ERR, "a channel cannot be made");
		can_link_close(&link);
		return nullptr;
	}
	driver->link = link;
	return driver;
}

void channel_driver_free(channel_driver *driver)
{
	if (driver == nullptr)
		return;
	can_link_close(&driver->link);
	isotp_channel_free(driver->channel);
	for (const int bell : {driver->sender.bell, driver->receiver.bell})
		if (bell >= 0)
			close(bell);
	(void)pthread_cond_destroy(&driver->turn); // nobody waits for it
	(void)pthread_mutex_destroy(&driver->lock);
	free(driver->arrivals);
	free(driver);
}

static void ring(role *one)
{
	if (one->is_rung)
		return;
	const uint64_t count = 1;
	(void)!write(one->bell, &count, sizeof(count)); // cannot be full
	one->is_rung = true;
}

static void silence(role *one)
{
	if (!one->is_rung)
		return;
	uint64_t count = 0;
	(void)!read(one->bell, &count, sizeof(count)); // cannot be empty
	one->is_rung = false;
}

void channel_driver_end(channel_driver *driver)
{
	const held_lock held = hold(&driver->lock);
	driver->has_ended = true;
	ring(&driver->sender);
	ring(&driver->receiver);
	(void)pthread_cond_broadcast(&driver->turn); // cannot fail
}

static int64_t now_us(const channel_driver *driver)
{
	return driver->link.now_us(driver->link.state);
}

// From here to the entry points, `lock` is held.

static void drop_oldest_arrival(channel_driver *driver)
{
	driver->oldest_arrival = (driver->oldest_arrival + 1) % arrivals_max;
	driver->arrivals_count--;
}

static void keep_arrival(channel_driver *driver, isotp_result result, const uint8_t *pdu, size_t length)
{
	if (driver->arrivals_count == arrivals_max) {
		uds_log(UDS_LOG_WARN, "nobody receives: the oldest answer is dropped");
		drop_oldest_arrival(driver);
	}
	arrival *next = &driver->arrivals[(driver->oldest_arrival + driver->arrivals_count) % arrivals_max];
	next->result = result;
	next->length = length;
	if (length > 0)
		memcpy(next->pdu, pdu, length);
	driver->arrivals_count++;
}

static void take_event(channel_driver *driver, isotp_event event)
{
	if (event == ISOTP_EVENT_BEGUN) {
		driver->begun_us = now_us(driver);
	} else if (event == ISOTP_EVENT_PDU) {
		size_t length = 0;
		const uint8_t *pdu = isotp_pdu(driver->channel, &length);
		keep_arrival(driver, ISOTP_OK, pdu, length);
	} else if (event == ISOTP_EVENT_FAILED) {
		const isotp_result result = isotp_reception_result(driver->channel);
		uds_log(UDS_LOG_WARN, "an answer was not received whole: %s", isotp_result_name(result));
		if (driver->receiver.is_taken)
			keep_arrival(driver, result, nullptr, 0);
	}
}

static void send_due_frames(channel_driver *driver)
{
	bus_frame frame{};
	driver->is_full = false;
	while (!driver->is_dead && !driver->is_full) {
		const isotp_out out = isotp_next_frame(driver->channel, &frame, now_us(driver));
		if (out == ISOTP_OUT_NONE)
			return;
		const int result = driver->link.send(driver->link.state, &frame);
		driver->is_dead = result < 0;
		driver->is_full = result > 0;
		if (result != 0)
			return;
		isotp_frame_sent(driver->channel, out, now_us(driver));
		uds_log_frame("sent", &frame);
	}
}

static bool receive_frame(channel_driver *driver, bus_frame *frame)
{
	if (driver->is_dead)
		return false;
	const int got = driver->link.receive(driver->link.state, frame);
	driver->is_dead = got < 0;
	return got > 0;
}

// Takes what has come, up to so many PDUs, and sends what is due. Whatever happened is news for the thread of the other
// role, too; one that takes that role later looks for itself before it waits. True when there may be more to take at
// once.
static bool work(channel_driver *driver, role *other, size_t pdus_max)
{
	const isotp_send_state state_before = isotp_sending(driver->channel);
	bus_frame frame{};
	int taken = 0;
	while (taken < frames_per_turn && driver->arrivals_count < pdus_max && receive_frame(driver, &frame)) {
		taken++;
		uds_log_frame("received", &frame);
		take_event(driver, isotp_take_frame(driver->channel, &frame, now_us(driver)));
		send_due_frames(driver);
	}
	const isotp_event event = isotp_step(driver->channel, now_us(driver));
	take_event(driver, event);
	send_due_frames(driver);
	const bool is_news =
			taken > 0 || event != ISOTP_EVENT_NONE || driver->is_dead || state_before != isotp_sending(driver->channel);
	if (is_news && other->is_taken)
		ring(other);
	return taken == frames_per_turn;
}

// Waits for a frame, a wake-up, the channel's next moment or deadline_us. The lock is released meanwhile, also when the
// deadline has passed: a thread that always has more to take lets others in between.
static void wait_for_news(channel_driver *driver, role *own, int64_t deadline_us)
{
	// What the channel has due has to wait, too, for room in a transmit queue that is full.
	const int64_t channel_us = driver->is_full ? now_us(driver) + full_retry_us : isotp_deadline(driver->channel);
	const int64_t until_us = deadline_us < channel_us ? deadline_us : channel_us;
	(void)pthread_mutex_unlock(&driver->lock); // neither can fail on a lock that we hold, and do not hold
	driver->link.wait(driver->link.state, own->bell, until_us);
	(void)pthread_mutex_lock(&driver->lock);
	silence(own);
}

static timespec moment_after(int64_t timeout_us)
{
	const int64_t until_us = can_link_monotonic_us() + timeout_us;
	timespec moment{};
	moment.tv_sec = static_cast<time_t>(until_us / 1000000);
	moment.tv_nsec = static_cast<long>(until_us % 1000000 * 1000);
	return moment;
}

// Gives the calling thread the role, which another one may have: that one is waited for, in real time.
static bool take_role(channel_driver *driver, role *wanted, int64_t timeout_us)
{
	const timespec until = moment_after(timeout_us);
	while (wanted->is_taken && !driver->has_ended)
		if (pthread_cond_clockwait(&driver->turn, &driver->lock, CLOCK_MONOTONIC, &until) != 0)
			break;
	if (driver->has_ended)
		return false;
	if (wanted->is_taken) {
		uds_log(UDS_LOG_WARN, "another thread has not left the channel in time");
		return false;
	}
	wanted->is_taken = true;
	return true;
}

static void leave_role(channel_driver *driver, role *held)
{
	held->is_taken = false;
	(void)pthread_cond_broadcast(&driver->turn); // cannot fail
}

// A send marks a moment: nothing that came before it can be its answer.
static void drop_what_came_before(channel_driver *driver)
{
	bus_frame frame{};
	const int64_t until_us = now_us(driver) + drop_us;
	for (int i = 0; i < frames_dropped_max && now_us(driver) < until_us && receive_frame(driver, &frame); i++)
		uds_log_frame("dropped", &frame);
	driver->link.mark(driver->link.state);
	driver->arrivals_count = 0;
	if (isotp_receiving(driver->channel)) {
		driver->reception_dropped = true;
		ring(&driver->receiver);
	}
	isotp_drop_reception(driver->channel);
}

static int run_send(channel_driver *driver)
{
	while (isotp_sending(driver->channel) == ISOTP_SEND_UNDER_WAY) {
		const bool is_more = work(driver, &driver->receiver, SIZE_MAX);
		if (driver->is_dead)
			isotp_abort_send(driver->channel);
		if (isotp_sending(driver->channel) == ISOTP_SEND_UNDER_WAY)
			wait_for_news(driver, &driver->sender, is_more ? 0 : isotp_never);
		if (driver->has_ended)
			isotp_abort_send(driver->channel);
	}
	return isotp_sending(driver->channel) == ISOTP_SEND_DONE ? 0 : -1;
}

static int send_pdu(channel_driver *driver, const uint8_t *pdu, size_t length)
{
	if (isotp_send(driver->channel, pdu, length, now_us(driver)) != 0) {
		uds_log(UDS_LOG_WARN, "a request of %zu bytes cannot be sent", length);
		return -1;
	}
	const int result = run_send(driver);
	if (result != 0)
		uds_log(UDS_LOG_WARN, "a request was not sent whole: %s",
				isotp_result_name(isotp_send_result(driver->channel)));
	return result;
}

int channel_driver_send(channel_driver *driver, const uint8_t *pdu, size_t length)
{
	const held_lock held = hold(&driver->lock);
	if (!take_role(driver, &driver->sender, isotp_timeout_us))
		return -1;
	drop_what_came_before(driver);
	const int result = driver->is_dead ? -1 : send_pdu(driver, pdu, length);
	leave_role(driver, &driver->sender);
	return result;
}

static int copy_arrival(const arrival *next, uint8_t *buffer, size_t capacity, size_t *length)
{
	if (next->result != ISOTP_OK)
		return -1;
	if (next->length > capacity) {
		uds_log(UDS_LOG_WARN, "an answer of %zu bytes does not fit a buffer of %zu", next->length, capacity);
		return -1;
	}
	memcpy(buffer, next->pdu, next->length);
	*length = next->length;
	return 0;
}

static int hand_over(channel_driver *driver, uint8_t *buffer, size_t capacity, size_t *length)
{
	const int result = copy_arrival(&driver->arrivals[driver->oldest_arrival], buffer, capacity, length);
	drop_oldest_arrival(driver);
	return result;
}

// Has the first frame of an answer come in time? Then N_Cr governs the rest.
static bool is_in_time(const channel_driver *driver, int64_t deadline_us)
{
	if (isotp_receiving(driver->channel))
		return driver->begun_us < deadline_us;
	return now_us(driver) < deadline_us;
}

// Waits until there is something to hand over. A first frame that is there when the wait for it is over has come in
// time: a thread that runs late, or has no time to wait, has not lost the answer by that. One that a sending thread
// took counts from then.
static bool await_arrival(channel_driver *driver, int64_t deadline_us, int64_t timeout_us)
{
	for (bool awaits_first = true;; awaits_first = !isotp_receiving(driver->channel)) {
		const bool is_more = work(driver, &driver->sender, 1); // the link keeps the next ones
		if (driver->arrivals_count > 0)
			return true;
		if (driver->is_dead)
			return false;
		if (driver->reception_dropped)
			deadline_us = now_us(driver) + timeout_us;
		driver->reception_dropped = false;
		if (awaits_first && isotp_receiving(driver->channel))
			driver->begun_us = INT64_MIN;
		if (!is_in_time(driver, deadline_us)) {
			uds_log(UDS_LOG_INFO, "no answer in time");
			isotp_drop_reception(driver->channel);
			return false;
		}
		const int64_t until_us = isotp_receiving(driver->channel) ? isotp_never : deadline_us;
		wait_for_news(driver, &driver->receiver, is_more ? 0 : until_us);
		if (driver->has_ended)
			return false;
	}
}

int channel_driver_receive(channel_driver *driver, uint8_t *buffer, size_t capacity, size_t *length, int timeout_ms)
{
	const int64_t timeout_us = timeout_ms > 0 ? timeout_ms * INT64_C(1000) : 0;
	const int64_t deadline_us = now_us(driver) + timeout_us;
	const held_lock held = hold(&driver->lock);
	if (driver->only_sends || !take_role(driver, &driver->receiver, timeout_us))
		return -1;
	driver->reception_dropped = false;
	const bool has_arrived = driver->arrivals_count > 0 || await_arrival(driver, deadline_us, timeout_us);
	const int result = has_arrived ? hand_over(driver, buffer, capacity, length) : -1;
	leave_role(driver, &driver->receiver);
	return result;
}
