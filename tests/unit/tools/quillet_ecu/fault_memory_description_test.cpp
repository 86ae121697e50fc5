// What the description tells of a fault memory and of frames that an ECU sends by itself.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "description.h"

namespace
{

using numbers = std::vector<uint32_t>;
using bytes = std::vector<uint8_t>;

std::string ecu_text(const std::string &members)
{
	return R"({"ecus": [{"name": "e", "request_id": "7E0", "response_id": "7E8", )" + members + "}]}";
}

ecu_description parsed_ecu(const std::string &members)
{
	bench_description bench;
	std::string error;
	EXPECT_TRUE(description_parse(ecu_text(members), "bench.json", &bench, &error)) << error;
	return bench.ecus.empty() ? ecu_description() : bench.ecus[0];
}

fault_memory parsed_memory(const std::string &members)
{
	return parsed_ecu(R"("fault_memory": {)" + members + "}").faults;
}

std::string error_of(const std::string &text)
{
	bench_description bench;
	std::string error;
	EXPECT_FALSE(description_parse(text, "bench.json", &bench, &error));
	return error;
}

TEST(fault_memory_description, is_absent_unless_given)
{
	EXPECT_FALSE(parsed_ecu(R"("resets": [])").faults.present);
}

TEST(fault_memory_description, fills_in_what_is_left_out)
{
	const fault_memory memory = parsed_memory("");
	EXPECT_TRUE(memory.present);
	EXPECT_EQ(memory.status_availability, 0xFFu);
	EXPECT_EQ(memory.format, 0x01u);
	EXPECT_EQ(memory.reports, numbers());
	EXPECT_TRUE(memory.dtcs.empty());
	EXPECT_TRUE(memory.mirror.empty());
	EXPECT_TRUE(memory.user_memories.empty());
}

TEST(fault_memory_description, reads_its_own_members)
{
	const fault_memory memory =
			parsed_memory(R"("status_availability": "7B", "format": "00", "reports": ["01", "17"])");
	EXPECT_EQ(memory.status_availability, 0x7Bu);
	EXPECT_EQ(memory.format, 0x00u);
	EXPECT_EQ(memory.reports, (numbers{0x01, 0x17}));
}

TEST(fault_memory_description, fills_in_what_a_code_leaves_out)
{
	const fault_memory memory = parsed_memory(R"("dtcs": [{"id": "012345", "status": "09"}])");
	ASSERT_EQ(memory.dtcs.size(), 1u);
	const dtc_description &dtc = memory.dtcs[0];
	EXPECT_EQ(dtc.id, 0x012345u);
	EXPECT_EQ(dtc.status, 0x09u);
	EXPECT_EQ(dtc.severity, 0u);
	EXPECT_EQ(dtc.functional_unit, 0u);
	EXPECT_EQ(dtc.fault_detection_counter, 0u);
	EXPECT_FALSE(dtc.emission);
	EXPECT_FALSE(dtc.permanent);
	EXPECT_TRUE(dtc.snapshots.empty());
	EXPECT_TRUE(dtc.stored_data.empty());
	EXPECT_TRUE(dtc.extended_data.empty());
}

TEST(fault_memory_description, reads_a_code)
{
	const fault_memory memory = parsed_memory(R"("dtcs": [{"id": "FFFFFE", "status": "FF", "severity": "E0",
		"functional_unit": "33", "fault_detection_counter": "80", "emission": true, "permanent": true}])");
	ASSERT_EQ(memory.dtcs.size(), 1u);
	const dtc_description &dtc = memory.dtcs[0];
	EXPECT_EQ(dtc.id, 0xFFFFFEu);
	EXPECT_EQ(dtc.status, 0xFFu);
	EXPECT_EQ(dtc.severity, 0xE0u);
	EXPECT_EQ(dtc.functional_unit, 0x33u);
	EXPECT_EQ(dtc.fault_detection_counter, 0x80u);
	EXPECT_TRUE(dtc.emission);
	EXPECT_TRUE(dtc.permanent);
}

TEST(fault_memory_description, reads_the_records_of_a_code)
{
	const fault_memory memory = parsed_memory(R"("dtcs": [{"id": "1", "status": "00",
		"snapshots": [{"record": "00"}, {"record": "FE", "data": [{"id": "F190", "text": "V"}, {"id": "1", "value": "02"}]}],
		"stored_data": [{"record": "05", "data": [{"id": "2", "value": "03"}]}],
		"extended_data": [{"record": "01"}, {"record": "EF", "value": "0405"}]}])");
	ASSERT_EQ(memory.dtcs.size(), 1u);
	const dtc_description &dtc = memory.dtcs[0];
	ASSERT_EQ(dtc.snapshots.size(), 2u);
	EXPECT_TRUE(dtc.snapshots[0].data.empty());
	EXPECT_EQ(dtc.snapshots[1].record, 0xFEu);
	ASSERT_EQ(dtc.snapshots[1].data.size(), 2u);
	EXPECT_EQ(dtc.snapshots[1].data[0].id, 0xF190u);
	EXPECT_EQ(dtc.snapshots[1].data[0].value, bytes{'V'});
	EXPECT_EQ(dtc.snapshots[1].data[1].value, bytes{0x02});
	ASSERT_EQ(dtc.stored_data.size(), 1u);
	EXPECT_EQ(dtc.stored_data[0].record, 0x05u);
	ASSERT_EQ(dtc.extended_data.size(), 2u);
	EXPECT_TRUE(dtc.extended_data[0].value.empty());
	EXPECT_EQ(dtc.extended_data[1].record, 0xEFu);
	EXPECT_EQ(dtc.extended_data[1].value, (bytes{0x04, 0x05}));
}

TEST(fault_memory_description, reads_the_other_memories)
{
	const fault_memory memory = parsed_memory(R"(
		"mirror_memory": [{"id": "1", "status": "02", "extended_data": [{"record": "01", "value": "03"}]}],
		"user_memories": [{"selection": "00"}, {"selection": "18", "dtcs": [{"id": "1", "status": "04"}]}])");
	ASSERT_EQ(memory.mirror.size(), 1u);
	EXPECT_EQ(memory.mirror[0].status, 0x02u);
	EXPECT_EQ(memory.mirror[0].extended_data.size(), 1u);
	ASSERT_EQ(memory.user_memories.size(), 2u);
	EXPECT_EQ(memory.user_memories[1].selection, 0x18u);
	ASSERT_EQ(memory.user_memories[1].dtcs.size(), 1u);
	EXPECT_EQ(memory.user_memories[1].dtcs[0].status, 0x04u);
}

TEST(fault_memory_description, says_where_it_is_wrong_and_what_is_expected)
{
	const struct {
		const char *what;
		const char *members;
		const char *error;
	} rows[] = {
			{"unknown member", R"("dtc": [])",
					".dtc: unknown member; known here: status_availability, format, reports, dtcs, "},
			{"availability", R"("status_availability": "100")",
					R"(.status_availability: expected hexadecimal digits as text, at most "FF", found "100")"},
			{"report beyond the last", R"("reports": ["18"])",
					R"(.reports: expected reports from "01" to "17", found ["18"])"},
			{"code without a number", R"("dtcs": [{"status": "00"}])", ".dtcs[0].id: missing: expected hexadecimal"},
			{"code without a status", R"("dtcs": [{"id": "1"}])", ".dtcs[0].status: missing: expected hexadecimal"},
			{"the group of all codes", R"("dtcs": [{"id": "FFFFFF", "status": "00"}])",
					R"(.dtcs[0].id: expected hexadecimal digits as text, at most "FFFFFE", found "FFFFFF")"},
			{"code twice", R"("dtcs": [{"id": "1", "status": "00"}, {"id": "000001", "status": "00"}])",
					R"(.dtcs[1].id: expected a number that is not there yet, found "000001")"},
			{"unknown member of a code", R"("dtcs": [{"id": "1", "state": "00"}])",
					".dtcs[0].state: unknown member; known here: id, status, "},
			{"flag that is none", R"("dtcs": [{"id": "1", "status": "00", "emission": 1}])",
					".dtcs[0].emission: expected true or false, found 1"},
			{"counter as a number", R"("dtcs": [{"id": "1", "status": "00", "fault_detection_counter": 5}])",
					".dtcs[0].fault_detection_counter: expected hexadecimal digits as text"},
			{"snapshot record of all", R"("dtcs": [{"id": "1", "status": "00", "snapshots": [{"record": "FF"}]}])",
					R"(.dtcs[0].snapshots[0].record: expected hexadecimal digits as text, at most "FE", found "FF")"},
			{"snapshot record twice",
					R"("dtcs": [{"id": "1", "status": "00", "snapshots": [{"record": "1"}, {"record": "1"}]}])",
					R"(.dtcs[0].snapshots[1].record: expected a number that is not there yet, found "1")"},
			{"snapshot without a value",
					R"("dtcs": [{"id": "1", "status": "00", "snapshots": [{"record": "1", "data": [{"id": "1"}]}]}])",
					R"(.dtcs[0].snapshots[0].data[0]: expected either "value" (bytes) or "text")"},
			{"unknown member of a snapshot",
					R"("dtcs": [{"id": "1", "status": "00", "snapshots": [{"record": "1", "value": "00"}]}])",
					".dtcs[0].snapshots[0].value: unknown member; known here: record, data"},
			{"unknown member of a snapshot's parameter",
					R"("dtcs": [{"id": "1", "status": "00", "snapshots": [{"record": "1", "data": [{"did": "1"}]}]}])",
					".dtcs[0].snapshots[0].data[0].did: unknown member; known here: id, value, text"},
			{"stored data record of two codes",
					R"("dtcs": [{"id": "1", "status": "00", "stored_data": [{"record": "1"}]},
						{"id": "2", "status": "00", "stored_data": [{"record": "01"}]}])",
					R"(.dtcs[1].stored_data[0].record: expected a number that is not there yet, found "01")"},
			{"extended data record 0", R"("dtcs": [{"id": "1", "status": "00", "extended_data": [{"record": "00"}]}])",
					R"(.dtcs[0].extended_data[0].record: expected a record from "01" to "EF", found "00")"},
			{"extended data record of a group",
					R"("dtcs": [{"id": "1", "status": "00", "extended_data": [{"record": "F0"}]}])",
					R"(.dtcs[0].extended_data[0].record: expected hexadecimal digits as text, at most "EF", found "F0")"},
			{"extended data record twice",
					R"("dtcs": [{"id": "1", "status": "00", "extended_data": [{"record": "1"}, {"record": "1"}]}])",
					R"(.dtcs[0].extended_data[1].record: expected a number that is not there yet, found "1")"},
			{"unknown member of extended data",
					R"("dtcs": [{"id": "1", "status": "00", "extended_data": [{"data": "00"}]}])",
					".dtcs[0].extended_data[0].data: unknown member; known here: record, value, text"},
			{"severity in the mirror memory", R"("mirror_memory": [{"id": "1", "status": "00", "severity": "20"}])",
					".mirror_memory[0].severity: unknown member; known here: id, status, extended_data"},
			{"code twice in the mirror memory",
					R"("mirror_memory": [{"id": "1", "status": "00"}, {"id": "1", "status": "00"}])",
					R"(.mirror_memory[1].id: expected a number that is not there yet, found "1")"},
			{"user memory without a selection", R"("user_memories": [{}])",
					".user_memories[0].selection: missing: expected hexadecimal"},
			{"unknown member of a user memory", R"("user_memories": [{"memory": "18"}])",
					".user_memories[0].memory: unknown member; known here: selection, dtcs"},
			{"user memory twice", R"("user_memories": [{"selection": "18"}, {"selection": "18"}])",
					R"(.user_memories[1].selection: expected a number that is not there yet, found "18")"},
			{"code twice in a user memory",
					R"("user_memories": [{"selection": "18", "dtcs": [{"id": "1", "status": "00"}, {"id": "1", "status": "00"}]}])",
					R"(.user_memories[0].dtcs[1].id: expected a number that is not there yet, found "1")"},
			{"extended data in a user memory",
					R"("user_memories": [{"selection": "18", "dtcs": [{"id": "1", "extended_data": []}]}])",
					".user_memories[0].dtcs[0].extended_data: unknown member; known here: id, status"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		const std::string text = ecu_text(std::string(R"("fault_memory": {)") + row.members + "}");
		EXPECT_THAT(error_of(text), testing::StartsWith(std::string("bench.json: $.ecus[0].fault_memory") + row.error));
	}
}

TEST(fault_memory_description, refuses_a_snapshot_of_more_identifiers_than_an_answer_can_count)
{
	std::string parameters;
	for (int number = 0; number < 256; number++)
		parameters += std::string(number == 0 ? "" : ",") + R"({"id": "1", "value": "00"})";
	EXPECT_EQ(
			error_of(ecu_text(
					R"("fault_memory": {"dtcs": [{"id": "1", "status": "00", "snapshots": [{"record": "01", "data": [)" +
					parameters + "]}]}]}")),
			"bench.json: $.ecus[0].fault_memory.dtcs[0].snapshots[0].data: expected at most 255 identifiers");
}

TEST(fault_memory_description, refuses_one_that_is_no_object)
{
	EXPECT_EQ(error_of(ecu_text(R"("fault_memory": [])")),
			"bench.json: $.ecus[0].fault_memory: expected an object, found []");
}

TEST(broadcast_description, is_read)
{
	const ecu_description ecu = parsed_ecu(R"("broadcasts": [{"id": "18FEDA00", "data": "01 02", "period_ms": 100},
		{"id": "123", "data": "", "period_ms": 3600000, "delay_ms": 50}])");
	ASSERT_EQ(ecu.broadcasts.size(), 2u);
	EXPECT_EQ(ecu.broadcasts[0].id, 0x18FEDA00u);
	EXPECT_EQ(ecu.broadcasts[0].data, (bytes{0x01, 0x02}));
	EXPECT_EQ(ecu.broadcasts[0].period_ms, 100u);
	EXPECT_EQ(ecu.broadcasts[0].delay_ms, 0u);
	EXPECT_EQ(ecu.broadcasts[1].data, bytes());
	EXPECT_EQ(ecu.broadcasts[1].delay_ms, 50u);
}

TEST(broadcast_description, says_where_it_is_wrong_and_what_is_expected)
{
	const struct {
		const char *what;
		const char *broadcast;
		const char *error;
	} rows[] = {
			{"unknown member", R"("cycle": 1)", ".cycle: unknown member; known here: id, data, period_ms, delay_ms"},
			{"no identifier", R"("data": "00", "period_ms": 1)", ".id: missing: expected hexadecimal digits"},
			{"no data", R"("id": "1", "period_ms": 1)", ".data: missing: expected pairs of hexadecimal digits"},
			{"no period", R"("id": "1", "data": "00")", ".period_ms: missing: expected a whole number"},
			{"period 0", R"("id": "1", "data": "00", "period_ms": 0)",
					".period_ms: expected a whole number from 1 to 3600000, found 0"},
			{"more than a frame holds", R"("id": "1", "data": "001122334455667788", "period_ms": 1)",
					".data: expected pairs of hexadecimal digits as text, at most 8 bytes"},
			{"more than 29 bits", R"("id": "20000000", "data": "00", "period_ms": 1)",
					R"(.id: expected hexadecimal digits as text, at most "1FFFFFFF", found "20000000")"},
			{"a request identifier", R"("id": "7E0", "data": "00", "period_ms": 1)",
					R"(.id: "7E0" is used by an ECU's diagnostics)"},
			{"a functional identifier", R"("id": "7DF", "data": "00", "period_ms": 1)",
					R"(.id: "7DF" is used by an ECU's diagnostics)"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		EXPECT_THAT(error_of(ecu_text(
							std::string(R"("functional_ids": ["7DF"], "broadcasts": [{)") + row.broadcast + "}]")),
				testing::StartsWith(std::string("bench.json: $.ecus[0].broadcasts[0]") + row.error));
	}
}

} // namespace
