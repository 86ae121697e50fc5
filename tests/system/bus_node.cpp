// A requester on the bus library, steered line by line over standard input and output:
//	bus_node <identity's folder> <broker's URL>
//	send <unit> <number> <text>
// What happens is told as it happens, a line each:
//	condition <number>               of the connection
//	refused <number>                 the library did not accept this message
//	delivered <number> <0 or 1>      the end of one that it accepted
//	message <text>                   one came in
//	released                         the last line; the program then ends
// The end of the input is an orderly stop. It uses the library as any other program does: through its C entry points.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <string>

#include "tervbus.h"

namespace
{

// The record comes first, so that the library's pointer to it is a pointer to this.
struct numbered_message {
	tervbus_message message;
	std::string number;
	std::string text;
};

struct release_event {
	std::mutex lock;
	std::condition_variable changed;
	bool happened = false;
};

void finish(numbered_message *sent)
{
	tervbus_free_address(sent->message.destination, 1);
	delete sent;
}

void on_connection_status(tervbus_client *, int condition)
{
	printf("condition %d\n", condition);
}

void on_delivered(tervbus_client *, tervbus_message *message, void *, int ok)
{
	auto *sent = reinterpret_cast<numbered_message *>(message);
	printf("delivered %s %d\n", sent->number.c_str(), ok);
	finish(sent);
}

void on_message(tervbus_client *, tervbus_message *message)
{
	printf("message %s\n", message->data);
}

void on_release(tervbus_client *client)
{
	auto *release = static_cast<release_event *>(client->user);
	const std::lock_guard guard(release->lock);
	release->happened = true;
	release->changed.notify_all();
}

void send(tervbus_client *client, std::istream &arguments)
{
	auto *sent = new numbered_message{};
	std::string unit;
	arguments >> unit >> sent->number >> std::ws;
	std::getline(arguments, sent->text);
	sent->message.content_type = "application/json";
	sent->message.data = sent->text.data();
	sent->message.length = static_cast<uint32_t>(sent->text.size() + 1);
	if (tervbus_chain_address(&sent->message.destination, TERVBUS_ADDRESS_UNIT, unit.c_str()) == 0 &&
			tervbus_send_message(client, &sent->message, 0) == 0)
		return;
	printf("refused %s\n", sent->number.c_str());
	finish(sent);
}

std::string file_text(const std::string &path)
{
	std::ifstream file(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

tervbus_buffer buffer_of(std::string &text)
{
	return {text.data(), static_cast<uint32_t>(text.size() + 1), 0, 2};
}

void serve(tervbus_client *client)
{
	std::string command;
	while (std::cin >> command && command == "send")
		send(client, std::cin);
	auto *release = static_cast<release_event *>(client->user);
	tervbus_stop_client(client);
	std::unique_lock held(release->lock);
	release->changed.wait(held, [release] { return release->happened; });
	puts("released");
}

} // namespace

int main(int count, char **arguments)
{
	if (count != 3)
		return 2;
	setvbuf(stdout, nullptr, _IOLBF, 0);

	const std::string folder = arguments[1];
	std::string texts[] = {
			file_text(folder + "/private.pem"), file_text(folder + "/cert.pem"), file_text(folder + "/../ca/ca.pem")};
	tervbus_buffer key = buffer_of(texts[0]);
	tervbus_buffer certificate = buffer_of(texts[1]);
	tervbus_buffer authority = buffer_of(texts[2]);
	tervbus_buffer *chain[] = {&certificate, nullptr};
	tervbus_buffer *trust[] = {&authority, nullptr};

	release_event release;
	tervbus_client client = {};
	client.mode = 1;
	client.identity = {1, chain, &key, nullptr, trust, nullptr};
	client.on_connection_status = on_connection_status;
	client.on_delivered = on_delivered;
	client.on_message = on_message;
	client.on_release = on_release;
	client.user = &release;

	tervbus_setup setup = {};
	if (tervbus_init_ll(&setup) != 0 || tervbus_init_client(&client, arguments[2]) != 0) {
		fprintf(stderr, "bus_node: no start with the identity in %s\n", folder.c_str());
		return 1;
	}
	serve(&client);
	return tervbus_fini_ll() == 0 ? 0 : 1;
}
