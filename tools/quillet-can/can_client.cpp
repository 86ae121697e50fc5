#include "can_client.h"

#include <cerrno>
#include <sys/socket.h>

static constexpr size_t output_max = 4096;
static constexpr size_t answers_max = 256; // of a client that asks without reading
static constexpr size_t on_wire_max = 64;  // more is not read from it: its transmit queue is full

void can_client_say(can_client &client, const std::string &text)
{
	if (client.output.size() >= output_max + answers_max) {
		client.is_gone = true;
		return;
	}
	client.output.push_back({text, false});
}

// The first entry may be half out, and answers are never dropped: the oldest whole frame goes.
static void drop_oldest_frame(can_client &client)
{
	for (auto entry = client.output.begin() + (client.output_at > 0); entry != client.output.end(); ++entry) {
		if (!entry->is_frame)
			continue;
		client.output.erase(entry);
		return;
	}
}

void can_client_give_frame(can_client &client, const char *text, size_t length)
{
	if (client.output.size() >= output_max)
		drop_oldest_frame(client);
	if (client.output.size() < output_max + answers_max)
		client.output.push_back({std::string(text, length), true});
}

bool can_client_wants_to_write(const can_client &client, int64_t now_us)
{
	if (client.output.empty())
		return false;
	return !client.output.front().is_frame || now_us >= client.quiet_until_us;
}

bool can_client_wants_to_read(const can_client &client)
{
	return !client.is_closing && client.on_wire < on_wire_max;
}

void can_client_flush(can_client &client, int64_t now_us)
{
	while (can_client_wants_to_write(client, now_us) && !client.is_gone) {
		const std::string &text = client.output.front().text;
		const ssize_t count = send(client.descriptor, text.data() + client.output_at, text.size() - client.output_at,
				MSG_DONTWAIT | MSG_NOSIGNAL);
		if (count < 0) {
			client.is_gone = errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR;
			return;
		}
		client.output_at += static_cast<size_t>(count);
		if (client.output_at < text.size())
			return;
		client.output.pop_front();
		client.output_at = 0;
	}
	if (client.is_closing && client.output.empty())
		client.is_gone = true;
}
