#include "unit/movrabus/bus_fixture.h"

#include <sys/stat.h>

#include "support/fail_nth.h"

using testing::IsEmpty;
using strings = std::vector<std::string>;

namespace
{

class bus_identity : public bus_test
{
protected:
	strings errors_of_a_failed_start()
	{
		EXPECT_EQ(init(), nullptr);
		strings errors = log.messages("ERR");
		EXPECT_GE(errors.size(), 2u);
		errors.resize(errors.size() - 2); // the directory's line and the start's, tested elsewhere
		return errors;
	}

	// The lines of one start that name addresses; both lookups walk the same list.
	strings address_lines(const std::string &level)
	{
		strings found;
		for (const std::string &message : log.messages(level))
			if (message.starts_with("type="))
				found.push_back(message);
		return found;
	}
};

}

TEST_F(bus_identity, loads_an_empty_file_as_one_zero_byte)
{
	files.write("node/private.pem", "");

	start();

	EXPECT_EQ(fake_bus::started_with().private_key, std::string(1, '\0'));
	EXPECT_EQ(fake_bus::client()->identity.private_key->length, 1u);
}

TEST_F(bus_identity, loads_files_of_every_size_around_a_block_whole)
{
	for (size_t size : {1u, 1023u, 1024u, 1025u, 2048u, 5000u}) {
		SCOPED_TRACE(size);
		std::string bytes(size, '\0');
		for (size_t i = 0; i < size; i++)
			bytes[i] = static_cast<char>(i * 7);
		files.write("node/cert.pem", bytes);
		start();
		EXPECT_EQ(fake_bus::started_with().certificate, bytes + '\0');
		stop();
	}
}

TEST_F(bus_identity, reports_a_missing_key)
{
	files.remove("node/private.pem");

	EXPECT_EQ(errors_of_a_failed_start(), (strings{"unable to open path", "identity->x509.private_key is NULL"}));
}

TEST_F(bus_identity, reports_a_missing_certificate)
{
	files.remove("node/cert.pem");

	EXPECT_EQ(errors_of_a_failed_start(), (strings{"unable to open path", "identity->x509.chain[0] is NULL"}));
}

TEST_F(bus_identity, reports_a_missing_ca_before_a_missing_certificate)
{
	files.remove("ca/ca.pem");
	files.remove("node/cert.pem");

	EXPECT_EQ(errors_of_a_failed_start(), (strings{"unable to open path", "identity->x509.trust[0] is NULL"}));
}

TEST_F(bus_identity, reports_a_missing_key_before_all_else)
{
	files.remove("ca/ca.pem");
	files.remove("node/cert.pem");
	files.remove("node/private.pem");

	EXPECT_EQ(errors_of_a_failed_start(), (strings{"unable to open path", "identity->x509.private_key is NULL"}));
}

TEST_F(bus_identity, reports_a_file_that_cannot_be_seeked)
{
	files.remove("node/private.pem");
	std::string pipe = files.node() + "/private.pem";
	ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
	std::fstream holder(pipe, std::ios::in | std::ios::out); // so that opening it to read does not wait

	EXPECT_EQ(errors_of_a_failed_start(), (strings{"Failed to seek " + pipe, "identity->x509.private_key is NULL"}));
}

TEST_F(bus_identity, reports_a_file_that_cannot_be_read)
{
	fail_nth failure("read", 1, EIO);

	EXPECT_EQ(errors_of_a_failed_start(),
			(strings{"Failed to read from " + files.node() + "/private.pem", "identity->x509.private_key is NULL"}));
}

TEST_F(bus_identity, reports_a_file_whose_start_cannot_be_found_again)
{
	fail_nth failure("lseek", 2, EIO);

	EXPECT_EQ(errors_of_a_failed_start(),
			(strings{"Failed to seek " + files.node() + "/private.pem", "identity->x509.private_key is NULL"}));
}

TEST_F(bus_identity, refuses_a_file_whose_length_does_not_fit_its_buffer)
{
	std::filesystem::resize_file(files.node() + "/private.pem", INT32_MAX); // a hole: it takes no room

	EXPECT_EQ(errors_of_a_failed_start(), (strings{"Memory Allocation failed", "identity->x509.private_key is NULL"}));
}

TEST_F(bus_identity, takes_the_first_unit_and_the_first_group)
{
	fake_bus::set_identity_addresses({fake_bus::group("FIRST-G"), fake_bus::unit("FIRST-U"), fake_bus::unit("OTHER-U"),
			fake_bus::group("OTHER-G")});

	start();

	EXPECT_STREQ(mobus_get_node_name(connection), "FIRST-U");
	EXPECT_EQ(address_lines("INFO"), (strings{"type=2, ua=FIRST-U", "type=3, group=FIRST-G"}));
	EXPECT_THAT(log.messages("ERR"), IsEmpty());
}

TEST_F(bus_identity, logs_special_and_unknown_addresses_in_both_lookups_also_after_the_match)
{
	fake_bus::set_identity_addresses({fake_bus::special(7), fake_bus::unit("U"), {9, "odd"}, fake_bus::special(0)});

	start();

	EXPECT_EQ(address_lines("INFO"),
			(strings{"type=1, special=7", "type=2, ua=U", "type=1, special=0", "type=1, special=7",
					"type=1, special=0"}));
	EXPECT_EQ(address_lines("ERR"), (strings{"type=9", "type=9"}));
}

TEST_F(bus_identity, starts_without_names_when_the_identity_has_none)
{
	fake_bus::set_identity_addresses({});

	start();

	EXPECT_EQ(mobus_get_node_name(connection), nullptr);
	EXPECT_TRUE(log.has_line("INFO", "movrabus", "node=(null), cert_dir=" + files.node()));
}

TEST_F(bus_identity, frees_the_list_also_after_a_failed_lookup)
{
	fake_bus::script("tervbus_get_identity_data", -1, 2);

	start();

	EXPECT_EQ(mobus_get_node_name(connection), nullptr);
	EXPECT_EQ(fake_bus::count_calls("tervbus_free_address"), 2u);
	EXPECT_THAT(address_lines("INFO"), IsEmpty());
}
