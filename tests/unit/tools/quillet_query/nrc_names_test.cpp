#include "nrc_names.h"

#include <set>

#include <gtest/gtest.h>

TEST(nrc_name, is_the_name_that_iso_14229_gives_the_code)
{
	const struct {
		uint8_t code;
		const char *name;
	} rows[] = {
			{0x10, "generalReject"},
			{0x11, "serviceNotSupported"},
			{0x12, "subFunctionNotSupported"},
			{0x13, "incorrectMessageLengthOrInvalidFormat"},
			{0x14, "responseTooLong"},
			{0x21, "busyRepeatRequest"},
			{0x22, "conditionsNotCorrect"},
			{0x24, "requestSequenceError"},
			{0x31, "requestOutOfRange"},
			{0x33, "securityAccessDenied"},
			{0x35, "invalidKey"},
			{0x36, "exceedNumberOfAttempts"},
			{0x37, "requiredTimeDelayNotExpired"},
			{0x70, "uploadDownloadNotAccepted"},
			{0x78, "requestCorrectlyReceived-ResponsePending"},
			{0x7E, "subFunctionNotSupportedInActiveSession"},
			{0x7F, "serviceNotSupportedInActiveSession"},
			{0x83, "engineIsRunning"},
			{0x8F, "brakeSwitch(es)NotClosed"},
			{0x93, "voltageTooLow"},
			{0x94, "resourceTemporarilyNotAvailable"},
	};
	for (const auto &row : rows)
		EXPECT_EQ(nrc_name(row.code), row.name);
}

TEST(nrc_name, tells_codes_without_a_name_from_those_of_the_vehicle_maker)
{
	EXPECT_EQ(nrc_name(0x01), "reserved");
	EXPECT_EQ(nrc_name(0x8E), "reserved");
	EXPECT_EQ(nrc_name(0xEF), "reserved");
	EXPECT_EQ(nrc_name(0xF0), "vehicleManufacturerSpecificConditionsNotCorrect");
	EXPECT_EQ(nrc_name(0xFE), "vehicleManufacturerSpecificConditionsNotCorrect");
	EXPECT_EQ(nrc_name(0xFF), "reserved");
}

TEST(nrc_name, is_another_one_for_each_code_that_has_one)
{
	std::set<std::string> names;
	unsigned named = 0;
	for (unsigned code = 0; code < 0xF0; code++) {
		const std::string name = nrc_name(static_cast<uint8_t>(code));
		if (name == "reserved")
			continue;
		named++;
		names.insert(name);
	}
	EXPECT_EQ(named, 60u);
	EXPECT_EQ(names.size(), named);
}

TEST(refusal_text, has_the_code_in_hexadecimal_and_by_name)
{
	EXPECT_EQ(refusal_text(0x22), "refused: NRC 22 conditionsNotCorrect");
	EXPECT_EQ(refusal_text(0x95), "refused: NRC 95 reserved");
}
