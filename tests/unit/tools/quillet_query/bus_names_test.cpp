#include "bus_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

TEST(bus_names, take_a_broker_by_name_and_by_address)
{
	for (const char *text : {"localhost:9133", "10.0.0.5:1", "[::1]:65535"}) {
		SCOPED_TRACE(text);
		std::string error;

		EXPECT_TRUE(check_broker_name(text, error));
	}
}

TEST(bus_names, refuse_a_broker_that_is_no_host_and_port)
{
	for (const char *text : {"", "localhost", ":9133", "localhost:", "localhost:x", "localhost:0", "localhost:65536",
				 "localhost:9133x", "tcp://localhost:9133", "::1:9133", "[]:9133", "a b:9133"}) {
		SCOPED_TRACE(text);
		std::string error;

		EXPECT_FALSE(check_broker_name(text, error));

		EXPECT_THAT(error, HasSubstr(std::string("--broker \"") + text + "\" is not HOST:PORT"));
	}
}

TEST(bus_names, take_a_unit_address)
{
	std::string error;

	EXPECT_TRUE(check_unit_name("Unit 7", error));
}

TEST(bus_names, refuse_a_unit_address_that_could_not_be_sent_to)
{
	for (const char *text : {"", "A/B", "A+", "#"}) {
		SCOPED_TRACE(text);
		std::string error;

		EXPECT_FALSE(check_unit_name(text, error));

		EXPECT_THAT(error, HasSubstr("is not a unit address"));
	}
}
