// The description: what is read, what stands in when it is left out, and how errors say where they are.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "description.h"

namespace
{

using numbers = std::vector<uint32_t>;
using bytes = std::vector<uint8_t>;

std::string ecu_text(const std::string &members)
{
	return R"({"ecus": [{"name": "e", "request_id": "7E0", "response_id": "7E8")" + members + "}]}";
}

bench_description parsed(const std::string &text)
{
	bench_description bench;
	std::string error;
	EXPECT_TRUE(description_parse(text, "bench.json", &bench, &error)) << error;
	return bench;
}

ecu_description parsed_ecu(const std::string &members)
{
	const bench_description bench = parsed(ecu_text(members));
	return bench.ecus.empty() ? ecu_description() : bench.ecus[0];
}

std::string error_of(const std::string &text)
{
	bench_description bench;
	bench.bus = "untouched";
	std::string error;
	EXPECT_FALSE(description_parse(text, "bench.json", &bench, &error));
	EXPECT_EQ(bench.bus, "untouched");
	return error;
}

TEST(description, fills_in_what_is_left_out)
{
	const ecu_description ecu = parsed_ecu("");
	EXPECT_EQ(ecu.name, "e");
	EXPECT_EQ(ecu.request_id, 0x7E0u);
	EXPECT_EQ(ecu.response_id, 0x7E8u);
	EXPECT_EQ(ecu.functional_ids, numbers());
	EXPECT_EQ(ecu.s3_ms, 5000u);
	EXPECT_EQ(ecu.reset_ms, 0u);
	EXPECT_EQ(ecu.block_size, 0u);
	EXPECT_EQ(ecu.st_min, 0u);
	ASSERT_EQ(ecu.sessions.size(), 1u);
	EXPECT_EQ(ecu.sessions[0].id, 1u);
	EXPECT_EQ(ecu.sessions[0].p2_ms, 50u);
	EXPECT_EQ(ecu.sessions[0].p2_star_ms, 5000u);
}

TEST(description, reads_the_bench)
{
	const bench_description bench = parsed(
			R"({"bus": "can1", "key_plugin_dir": "keys", "functional_ids": ["7DF", "0x18DB33F1"], "ecus": [
				{"name": "a", "request_id": "7E0", "response_id": "7E8"},
				{"name": "b", "request_id": "18DA10F1", "response_id": "18daf110", "functional_ids": ["700"],
				 "key_plugin_dir": "own", "block_size": 8, "st_min": "F5", "s3_ms": 1000, "reset_ms": 20}]})");
	EXPECT_EQ(bench.bus, "can1");
	EXPECT_EQ(bench.key_plugin_dir, "keys");
	ASSERT_EQ(bench.ecus.size(), 2u);
	EXPECT_EQ(bench.ecus[0].functional_ids, (numbers{0x7DF, 0x18DB33F1}));
	EXPECT_EQ(bench.ecus[1].request_id, 0x18DA10F1u);
	EXPECT_EQ(bench.ecus[1].response_id, 0x18DAF110u);
	EXPECT_EQ(bench.ecus[1].functional_ids, numbers{0x700});
	EXPECT_EQ(bench.ecus[1].key_plugin_dir, "own");
	EXPECT_EQ(bench.ecus[1].block_size, 8u);
	EXPECT_EQ(bench.ecus[1].st_min, 0xF5u);
	EXPECT_EQ(bench.ecus[1].s3_ms, 1000u);
	EXPECT_EQ(bench.ecus[1].reset_ms, 20u);
}

TEST(description, reads_sessions)
{
	const ecu_description ecu = parsed_ecu(
			R"(, "p2_ms": 25, "p2_star_ms": 2000, "sessions": [{"id": "03"}, {"id": "02", "from": ["03"], "p2_ms": 99},
			{"id": "01", "p2_star_ms": 3000}])");
	ASSERT_EQ(ecu.sessions.size(), 3u);
	EXPECT_EQ(ecu.sessions[0].id, 1u);
	EXPECT_EQ(ecu.sessions[0].p2_ms, 25u);
	EXPECT_EQ(ecu.sessions[0].p2_star_ms, 3000u);
	EXPECT_EQ(ecu.sessions[1].id, 3u);
	EXPECT_EQ(ecu.sessions[1].p2_star_ms, 2000u);
	EXPECT_EQ(ecu.sessions[2].p2_ms, 99u);
	EXPECT_EQ(ecu.sessions[2].from, numbers{3});
}

TEST(description, reads_security_levels)
{
	const ecu_description ecu = parsed_ecu(
			R"(, "sessions": [{"id": "03"}], "security": [{"level": "01"}, {"level": "11", "sessions": ["03"],
			"script": "s", "key_level": "A5", "seed": "DEADBEEF", "attempts": 5, "delay_ms": 77}])");
	ASSERT_EQ(ecu.security.size(), 2u);
	EXPECT_EQ(ecu.security[0].level, 1u);
	EXPECT_EQ(ecu.security[0].key_level, 1u) << "the level itself";
	EXPECT_EQ(ecu.security[0].script, "");
	EXPECT_FALSE(ecu.security[0].seed_is_fixed);
	EXPECT_EQ(ecu.security[0].attempts, 3u);
	EXPECT_EQ(ecu.security[0].delay_ms, 10000u);
	EXPECT_EQ(ecu.security[1].level, 0x11u);
	EXPECT_EQ(ecu.security[1].sessions, numbers{3});
	EXPECT_EQ(ecu.security[1].script, "s");
	EXPECT_EQ(ecu.security[1].key_level, 0xA5u);
	EXPECT_TRUE(ecu.security[1].seed_is_fixed);
	EXPECT_EQ(ecu.security[1].seed, 0xDEADBEEFu);
	EXPECT_EQ(ecu.security[1].attempts, 5u);
	EXPECT_EQ(ecu.security[1].delay_ms, 77u);
}

TEST(description, reads_identifiers)
{
	const ecu_description ecu = parsed_ecu(
			R"(, "sessions": [{"id": "03"}], "security": [{"level": "01"}], "identifiers": [
			{"id": "F190", "text": "VIN"},
			{"id": "0100", "value": "0a FF", "read": {"sessions": ["03"]}, "write": {"security": "01"}}])");
	ASSERT_EQ(ecu.identifiers.size(), 2u);
	EXPECT_EQ(ecu.identifiers[0].id, 0xF190u);
	EXPECT_EQ(ecu.identifiers[0].value, (bytes{'V', 'I', 'N'}));
	EXPECT_FALSE(ecu.identifiers[0].writable);
	EXPECT_EQ(ecu.identifiers[1].value, (bytes{0x0A, 0xFF}));
	EXPECT_EQ(ecu.identifiers[1].read.sessions, numbers{3});
	EXPECT_TRUE(ecu.identifiers[1].writable);
	EXPECT_EQ(ecu.identifiers[1].write.security, 1u);
}

TEST(description, reads_routines)
{
	const ecu_description ecu = parsed_ecu(
			R"(, "sessions": [{"id": "03"}], "security": [{"level": "01"}], "routines": [{"id": "0203",
			"sessions": ["03"], "security": "01", "start": {"option": 2, "option_most": 4, "answer": "00"},
			"results": {"any_time": true}}])");
	ASSERT_EQ(ecu.routines.size(), 1u);
	const routine_description &routine = ecu.routines[0];
	EXPECT_EQ(routine.id, 0x203u);
	EXPECT_EQ(routine.access.sessions, numbers{3});
	EXPECT_EQ(routine.access.security, 1u);
	EXPECT_TRUE(routine.actions[1].offered);
	EXPECT_EQ(routine.actions[1].option_least, 2u);
	EXPECT_EQ(routine.actions[1].option_most, 4u);
	EXPECT_EQ(routine.actions[1].answer, bytes{0});
	EXPECT_FALSE(routine.actions[2].offered);
	EXPECT_TRUE(routine.actions[3].offered);
	EXPECT_TRUE(routine.actions[3].any_time);
	EXPECT_EQ(routine.actions[3].option_most, 0u);
}

TEST(description, reads_overrides)
{
	const ecu_description ecu = parsed_ecu(R"(, "overrides": [
			{"request": "22F1", "whole": true, "negative": "22", "times": 2, "delay_ms": 9,
			 "pending": {"count": 3, "interval_ms": 5}},
			{"request": "31", "pending": {"endless": true, "interval_ms": 500}},
			{"request": "3E", "answer": "7E 00"}, {"request": "85", "silent": true}])");
	ASSERT_EQ(ecu.overrides.size(), 4u);
	EXPECT_EQ(ecu.overrides[0].request, (bytes{0x22, 0xF1}));
	EXPECT_TRUE(ecu.overrides[0].whole);
	EXPECT_EQ(ecu.overrides[0].kind, OVERRIDE_NEGATIVE);
	EXPECT_EQ(ecu.overrides[0].nrc, 0x22u);
	EXPECT_EQ(ecu.overrides[0].times, 2u);
	EXPECT_EQ(ecu.overrides[0].delay_ms, 9u);
	EXPECT_EQ(ecu.overrides[0].pending_count, 3u);
	EXPECT_EQ(ecu.overrides[0].pending_interval_ms, 5u);
	EXPECT_FALSE(ecu.overrides[0].endless);
	EXPECT_EQ(ecu.overrides[1].kind, OVERRIDE_NORMAL);
	EXPECT_TRUE(ecu.overrides[1].endless);
	EXPECT_EQ(ecu.overrides[2].kind, OVERRIDE_ANSWER);
	EXPECT_EQ(ecu.overrides[2].answer, (bytes{0x7E, 0x00}));
	EXPECT_EQ(ecu.overrides[3].kind, OVERRIDE_SILENT);
}

TEST(description, reads_services_and_resets)
{
	const ecu_description ecu = parsed_ecu(
			R"(, "sessions": [{"id": "03"}], "services": [{"service": "31", "sessions": ["03"]}], "resets": ["01", "40"])");
	ASSERT_EQ(ecu.services.size(), 1u);
	EXPECT_EQ(ecu.services[0].sid, 0x31u);
	EXPECT_EQ(ecu.services[0].access.sessions, numbers{3});
	EXPECT_EQ(ecu.resets, (numbers{0x01, 0x40}));
}

// Each row: what is wrong, the members added to an ECU, and what follows "bench.json: $.ecus[0]" in the error.
TEST(description, says_where_an_ecu_is_wrong_and_what_is_expected)
{
	const struct {
		const char *what;
		const char *members;
		const char *error;
	} rows[] = {
			{"unknown member", R"(, "nmae": "x")", ".nmae: unknown member; known here: name, request_id, "},
			{"number out of range", R"(, "block_size": 256)",
					".block_size: expected a whole number from 0 to 255, found 256"},
			{"fraction", R"(, "s3_ms": 1.5)", ".s3_ms: expected a whole number from 0 to 3600000, found 1.5"},
			{"text for a number", R"(, "s3_ms": "5")",
					R"(.s3_ms: expected a whole number from 0 to 3600000, found "5")"},
			{"number for hexadecimal text", R"(, "functional_ids": [2015])",
					R"(.functional_ids[0]: expected hexadecimal digits as text, at most "1FFFFFFF", found 2015)"},
			{"not hexadecimal", R"(, "functional_ids": ["7DF", "7DG"])",
					R"(.functional_ids[1]: expected hexadecimal digits as text, at most "1FFFFFFF", found "7DG")"},
			{"identifier above 29 bits", R"(, "functional_ids": ["20000000"])",
					R"(.functional_ids[0]: expected hexadecimal digits as text, at most "1FFFFFFF", found "20000000")"},
			{"no array", R"(, "sessions": {})", ".sessions: expected an array, found {}"},
			{"no object", R"(, "sessions": [3])", ".sessions[0]: expected an object, found 3"},
			{"session without id", R"(, "sessions": [{}])",
					R"(.sessions[0].id: missing: expected hexadecimal digits as text, at most "7E")"},
			{"session 0", R"(, "sessions": [{"id": "00"}])",
					R"(.sessions[0].id: expected a session from "01" to "7E", found "00")"},
			{"session twice", R"(, "sessions": [{"id": "03"}, {"id": "03"}])",
					R"(.sessions[1].id: expected a session that is not listed yet, found "03")"},
			{"unknown session to come from", R"(, "sessions": [{"id": "02", "from": ["03"]}])",
					R"(.sessions: session "03" is not among the ECU's sessions)"},
			{"reset with a power-down time", R"(, "resets": ["04"])",
					R"(.resets: expected resets from "01" to "03" or "40" to "7E", found "04")"},
			{"service in an unknown session", R"(, "services": [{"service": "22", "sessions": ["03"]}])",
					R"(.services[0].sessions: session "03" is not among the ECU's sessions)"},
			{"service under an unknown level", R"(, "services": [{"service": "22", "security": "01"}])",
					R"(.services[0].security: level "01" is not among the ECU's security levels)"},
			{"service twice", R"(, "services": [{"service": "22"}, {"service": "22"}])",
					R"(.services[1]: "22" is there twice)"},
			{"even level", R"(, "security": [{"level": "02"}])",
					R"(.security[0].level: expected an odd number: the sub-function that requests the seed, found "02")"},
			{"seed 0", R"(, "security": [{"level": "01", "seed": "0"}])",
					R"(.security[0].seed: expected a seed above 0: a seed of 0 says that the ECU is unlocked, found "0")"},
			{"no attempts", R"(, "security": [{"level": "01", "attempts": 0}])",
					".security[0].attempts: expected a whole number from 1 to 255, found 0"},
			{"level twice", R"(, "security": [{"level": "01"}, {"level": "01"}])",
					R"(.security[1]: "01" is there twice)"},
			{"level in an unknown session", R"(, "security": [{"level": "01", "sessions": ["04"]}])",
					R"(.security[0].sessions: session "04" is not among the ECU's sessions)"},
			{"no value", R"(, "identifiers": [{"id": "F190"}])",
					R"(.identifiers[0]: expected either "value" (bytes) or "text")"},
			{"two values", R"(, "identifiers": [{"id": "F190", "value": "00", "text": "x"}])",
					R"(.identifiers[0]: expected either "value" (bytes) or "text")"},
			{"empty value", R"(, "identifiers": [{"id": "F190", "value": ""}])",
					".identifiers[0]: expected a value of 1 to 8188 bytes"},
			{"half a byte", R"(, "identifiers": [{"id": "F190", "value": "0"}])",
					R"(.identifiers[0].value: expected pairs of hexadecimal digits as text, at most 8188 bytes, found "0")"},
			{"empty text", R"(, "identifiers": [{"id": "F190", "text": ""}])",
					R"(.identifiers[0].text: expected a text that is not empty, found "")"},
			{"identifier twice", R"(, "identifiers": [{"id": "1", "value": "00"}, {"id": "0001", "value": "00"}])",
					R"(.identifiers[1]: "01" is there twice)"},
			{"identifier under an unknown level",
					R"(, "identifiers": [{"id": "1", "value": "00", "write": {"security": "05"}}])",
					R"(.identifiers[0].write.security: level "05" is not among the ECU's security levels)"},
			{"routine without anything", R"(, "routines": [{"id": "0001"}])",
					R"(.routines[0]: expected at least one of "start", "stop" and "results")"},
			{"longest option below the shortest",
					R"(, "routines": [{"id": "1", "start": {"option": 2, "option_most": 1}}])",
					".routines[0].start.option_most: expected a whole number from 2 to 8187, found 1"},
			{"any_time no flag", R"(, "routines": [{"id": "1", "stop": {"any_time": 1}}])",
					".routines[0].stop.any_time: expected true or false, found 1"},
			{"override without a request", R"(, "overrides": [{"negative": "22"}])",
					".overrides[0].request: missing: expected pairs of hexadecimal digits as text, at most 8191 bytes"},
			{"override of nothing", R"(, "overrides": [{"request": ""}])",
					R"(.overrides[0].request: expected at least the service's byte, found "")"},
			{"negative code 0", R"(, "overrides": [{"request": "22", "negative": "00"}])",
					R"(.overrides[0].negative: expected a negative response code from "01" to "FF", found "00")"},
			{"two answers", R"(, "overrides": [{"request": "22", "negative": "22", "answer": "62"}])",
					R"(.overrides[0]: expected one of "negative", "answer" and "silent" at most)"},
			{"empty answer", R"(, "overrides": [{"request": "22", "answer": ""}])",
					R"(.overrides[0].answer: expected at least one byte, found "")"},
			{"silent and pending",
					R"(, "overrides": [{"request": "22", "silent": true, "pending": {"count": 1, "interval_ms": 1}}])",
					R"(.overrides[0]: "silent" and "pending" exclude each other)"},
			{"pending without an end or a count",
					R"(, "overrides": [{"request": "22", "pending": {"interval_ms": 1}}])",
					R"(.overrides[0].pending: expected either "count" or "endless": true)"},
			{"pending with both",
					R"(, "overrides": [{"request": "22", "pending": {"endless": true, "count": 1, "interval_ms": 1}}])",
					R"(.overrides[0].pending: expected either "count" or "endless": true)"},
			{"pending without an interval", R"(, "overrides": [{"request": "22", "pending": {"count": 1}}])",
					".overrides[0].pending.interval_ms: missing: expected a whole number from 1 to 3600000"},
			{"functional as physical", R"(, "functional_ids": ["7E0"])",
					R"(.functional_ids: "7E0" is the ECU's request_id or response_id as well)"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		EXPECT_THAT(
				error_of(ecu_text(row.members)), testing::StartsWith(std::string("bench.json: $.ecus[0]") + row.error));
	}
}

TEST(description, says_where_a_bench_is_wrong)
{
	const char *a = R"({"name": "a", "request_id": "7E0", "response_id": "7E8"})";
	const struct {
		const char *what;
		std::string text;
		const char *error;
	} rows[] = {
			{"not JSON", "{\n\n  \"ecus\": [}\n", "bench.json: line 3: not JSON: "},
			{"cut off", "{\"ecus\": [", "bench.json: line 1: not JSON: "},
			{"empty", "", "bench.json: line 1: not JSON: "},
			{"no object", "[]", "bench.json: $: expected an object, found []"},
			{"unknown member", R"({"ecu": []})",
					"bench.json: $.ecu: unknown member; known here: bus, functional_ids, "},
			{"no ECUs", "{}", "bench.json: $.ecus: missing: expected an array"},
			{"empty list of ECUs", R"({"ecus": []})", "bench.json: $.ecus: expected at least one ECU"},
			{"no name", R"({"ecus": [{"request_id": "1", "response_id": "2"}]})",
					"bench.json: $.ecus[0].name: missing: expected a text that is not empty"},
			{"no request identifier", R"({"ecus": [{"name": "a", "response_id": "2"}]})",
					"bench.json: $.ecus[0].request_id: missing: expected hexadecimal digits"},
			{"no response identifier", R"({"ecus": [{"name": "a", "request_id": "2"}]})",
					"bench.json: $.ecus[0].response_id: missing: expected hexadecimal digits"},
			{"one identifier for both", R"({"ecus": [{"name": "a", "request_id": "1", "response_id": "1"}]})",
					"bench.json: $.ecus[0].response_id: must differ from request_id"},
			{"name twice",
					std::string(R"({"ecus": [)") + a + R"(, {"name": "a", "request_id": "1", "response_id": "2"}]})",
					R"(bench.json: $.ecus[1].name: "a" is there twice)"},
			{"request identifier twice",
					std::string(R"({"ecus": [)") + a + R"(, {"name": "b", "request_id": "7E0", "response_id": "2"}]})",
					R"(bench.json: $.ecus[1].request_id: "7E0" is used by another ECU)"},
			{"response identifier twice",
					std::string(R"({"ecus": [)") + a + R"(, {"name": "b", "request_id": "1", "response_id": "7E8"}]})",
					R"(bench.json: $.ecus[1].response_id: "7E8" is used by another ECU)"},
			{"functional as another's physical",
					std::string(R"({"ecus": [)") + a +
							R"(, {"name": "b", "request_id": "1", "response_id": "2", "functional_ids": ["7E8"]}]})",
					R"(bench.json: $.ecus[1].functional_ids: "7E8" is an ECU's request_id or response_id)"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		EXPECT_THAT(error_of(row.text), testing::StartsWith(row.error));
	}
}

TEST(description, repeats_only_the_beginning_of_a_long_wrong_value)
{
	const std::string error = error_of(ecu_text(R"(, "s3_ms": ")" + std::string(1000, 'x') + R"(")"));
	EXPECT_LT(error.size(), 200u);
	EXPECT_THAT(error, testing::EndsWith("..."));
}

TEST(description, says_which_file_cannot_be_read)
{
	bench_description bench;
	std::string error;
	EXPECT_FALSE(description_load("/nonexistent/bench.json", &bench, &error));
	EXPECT_THAT(error, testing::StartsWith("/nonexistent/bench.json: "));
}

TEST(description, takes_directories_relative_to_the_file)
{
	const auto directory = std::filesystem::temp_directory_path() / ("quillet-ecu-test-" + std::to_string(getpid()));
	std::filesystem::create_directory(directory);
	const std::string path = (directory / "b.json").string();
	std::ofstream(path) << R"({"key_plugin_dir": "keys", "ecus": [
		{"name": "e", "request_id": "7E0", "response_id": "7E8", "key_plugin_dir": "/opt/keys"}]})";

	bench_description bench;
	std::string error;
	EXPECT_TRUE(description_load(path, &bench, &error)) << error;
	std::filesystem::remove_all(directory);

	EXPECT_EQ(bench.key_plugin_dir, (directory / "keys").string());
	ASSERT_EQ(bench.ecus.size(), 1u);
	EXPECT_EQ(bench.ecus[0].key_plugin_dir, "/opt/keys");
}

TEST(description, reads_the_bench_that_is_shipped)
{
	bench_description bench;
	std::string error;
	ASSERT_TRUE(description_load(BENCH_FILE, &bench, &error)) << error;
	EXPECT_EQ(bench.ecus.size(), 3u);
}

} // namespace
