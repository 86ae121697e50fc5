// A certificate directory on disk and a connection over the fake bus library, for the tests of the bus client.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_tervbus.h"
#include "movrabus/movrabus.h"
#include "support/captured_output.h"
#include "support/verbosity_scope.h"

// <root>/node/{private,cert}.pem and <root>/ca/ca.pem, removed with the object.
class certificate_directory
{
public:
	certificate_directory()
	{
		char pattern[] = "/tmp/movrabus_test_XXXXXX";
		root = mkdtemp(pattern);
		std::filesystem::create_directories(root + "/node");
		std::filesystem::create_directories(root + "/ca");
		write("node/private.pem", "KEY");
		write("node/cert.pem", "CERTIFICATE");
		write("ca/ca.pem", "CA");
	}
	~certificate_directory()
	{
		std::filesystem::remove_all(root);
	}
	certificate_directory(const certificate_directory &) = delete;
	certificate_directory &operator=(const certificate_directory &) = delete;

	void write(const std::string &name, const std::string &bytes) const
	{
		std::ofstream(root + "/" + name, std::ios::binary) << bytes;
	}
	void remove(const std::string &name) const
	{
		std::filesystem::remove(root + "/" + name);
	}
	std::string node() const
	{
		return root + "/node";
	}

	std::string root;
};

// What the message callback was given.
struct received_message {
	std::string text;
	size_t length;
	std::string first_source;
	void *context;
};

class bus_test : public testing::Test
{
protected:
	bus_test()
	{
		fake_bus::reset();
		received.clear();
	}
	~bus_test() override
	{
		mobus_deinit(connection);
		fake_bus::reset();
	}

	mobus_connection *init()
	{
		return mobus_init(nullptr, files.node().c_str(), url, &context, on_text, nullptr);
	}
	void start()
	{
		connection = init();
		ASSERT_NE(connection, nullptr);
	}
	void stop()
	{
		mobus_deinit(connection);
		connection = nullptr;
	}
	static int on_text(const char *text, size_t length, const address_entry *source, void *with)
	{
		received.push_back({text, length, source != nullptr ? source->value.text : "", with});
		return 1;
	}

	static inline std::vector<received_message> received;
	static constexpr const char *url = "tcp://127.0.0.1:9133";
	certificate_directory files;
	captured_output log;
	int context = 0;
	mobus_connection *connection = nullptr;
};
