#include "decode_dtc.h"

#include "hex_text.h"

namespace
{

using lines = std::vector<std::string>;

// The answer's bytes that have not been taken yet.
struct byte_source {
	const std::vector<uint8_t> &bytes;
	size_t at = 0;

	size_t left() const
	{
		return bytes.size() - at;
	}
};

// The next bytes as one number, the first one highest. The caller has looked that they are there.
uint32_t take(byte_source &source, size_t count)
{
	uint32_t number = 0;
	for (; count > 0; count--)
		number = number << 8 | source.bytes[source.at++];
	return number;
}

uint8_t take_byte(byte_source &source)
{
	return static_cast<uint8_t>(take(source, 1));
}

std::string take_rest(byte_source &source)
{
	std::vector<uint8_t> rest(source.bytes.begin() + static_cast<std::ptrdiff_t>(source.at), source.bytes.end());
	source.at = source.bytes.size();
	return hex_of(rest);
}

lines cut_short(byte_source source)
{
	return {"the answer is cut short: " + (source.left() == 0 ? "no data" : take_rest(source))};
}

void tell_left_over(byte_source &source, lines &out)
{
	if (source.left() != 0)
		out.push_back("left over, not a whole entry: " + take_rest(source));
}

std::string bits_text(uint8_t mask)
{
	return "supported status bits " + hex_of(mask);
}

std::string count_text(size_t count, const char *what)
{
	return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string status_entry(uint8_t status)
{
	return "status " + hex_of(status) + ": " + status_text(status);
}

std::string take_dtc_and_status(byte_source &source)
{
	const std::string dtc = dtc_text(take(source, 3));
	return dtc + " " + status_entry(take_byte(source));
}

// Entries of one size, each shown by a function; the first line is put before them.
lines list_of(byte_source &source, const std::string &before, const std::string &after, size_t size,
		std::string (*show)(byte_source &))
{
	lines out = {""};
	while (source.left() >= size)
		out.push_back(show(source));
	out[0] = before + count_text(out.size() - 1, "DTC") + after;
	tell_left_over(source, out);
	return out;
}

lines decode_count(byte_source source)
{
	if (source.left() < 4)
		return cut_short(source);
	const std::string bits = bits_text(take_byte(source));
	const std::string format = dtc_format_name(take_byte(source));
	lines out = {count_text(take(source, 2), "DTC") + "; " + bits + "; format of DTCs: " + format};
	tell_left_over(source, out);
	return out;
}

lines decode_status_list(byte_source source)
{
	if (source.left() < 1)
		return cut_short(source);
	const std::string bits = bits_text(take_byte(source));
	return list_of(source, "", "; " + bits, 4, take_dtc_and_status);
}

lines decode_memory_status_list(byte_source source)
{
	if (source.left() < 2)
		return cut_short(source);
	const std::string memory = "memory " + hex_of(take_byte(source)) + "; ";
	const std::string bits = bits_text(take_byte(source));
	return list_of(source, memory, "; " + bits, 4, take_dtc_and_status);
}

std::string take_snapshot_entry(byte_source &source)
{
	const std::string dtc = dtc_text(take(source, 3));
	return dtc + " snapshot record " + hex_of(take_byte(source));
}

lines decode_snapshot_list(byte_source source)
{
	lines out = list_of(source, "", "", 4, take_snapshot_entry);
	// A DTC has an entry for each of its records.
	out[0] = count_text(source.bytes.size() / 4, "snapshot record");
	return out;
}

std::string take_severity_entry(byte_source &source)
{
	const uint8_t severity = take_byte(source);
	const uint8_t unit = take_byte(source);
	const std::string dtc = dtc_text(take(source, 3));
	return dtc + " severity " + hex_of(severity) + ": " + severity_text(severity) + "; functional unit " +
			hex_of(unit) + "; " + status_entry(take_byte(source));
}

lines decode_severity_list(byte_source source)
{
	if (source.left() < 1)
		return cut_short(source);
	const std::string bits = bits_text(take_byte(source));
	return list_of(source, "", "; " + bits, 6, take_severity_entry);
}

std::string take_counter_entry(byte_source &source)
{
	const std::string dtc = dtc_text(take(source, 3));
	return dtc + " fault detection counter " + std::to_string(static_cast<int8_t>(take_byte(source)));
}

lines decode_fault_counters(byte_source source)
{
	return list_of(source, "", "", 4, take_counter_entry);
}

// Number of identifiers, then identifiers and their data. Only the ECU's maker knows how long each one's data are, so
// they stay together, with the records that may follow.
void tell_identifiers(byte_source &source, const std::string &before, lines &out)
{
	if (source.left() == 0) {
		out.push_back(before + ": cut short");
		return;
	}
	const std::string count = count_text(take_byte(source), "identifier");
	const std::string data = take_rest(source);
	out.push_back(before + ", " + count + ": " + (data.empty() ? "no data" : data));
}

lines decode_snapshot_of_dtc(byte_source source)
{
	if (source.left() < 4)
		return cut_short(source);
	lines out = {take_dtc_and_status(source)};
	if (source.left() == 0)
		out.push_back("no snapshot data");
	else
		tell_identifiers(source, "snapshot record " + hex_of(take_byte(source)), out);
	return out;
}

lines decode_stored_data(byte_source source)
{
	if (source.left() < 1)
		return cut_short(source);
	const std::string record = "stored data record " + hex_of(take_byte(source));
	if (source.left() == 0)
		return {record + ": no data"};
	lines out = {record};
	if (source.left() < 4) {
		tell_left_over(source, out);
		return out;
	}
	out.push_back(take_dtc_and_status(source));
	tell_identifiers(source, "stored data", out);
	return out;
}

lines decode_extended_of_dtc(byte_source source)
{
	if (source.left() < 4)
		return cut_short(source);
	lines out = {take_dtc_and_status(source)};
	if (source.left() == 0) {
		out.push_back("no extended data");
		return out;
	}
	const std::string record = "extended data record " + hex_of(take_byte(source));
	const std::string data = take_rest(source);
	out.push_back(record + ": " + (data.empty() ? "no data" : data));
	return out;
}

// The data of each DTC are as long as the ECU's maker has laid down: what follows the first DTC stays together.
lines decode_extended_by_record(byte_source source)
{
	if (source.left() < 1)
		return cut_short(source);
	const std::string record = "extended data record " + hex_of(take_byte(source));
	if (source.left() == 0)
		return {record + ": no DTC"};
	lines out = {record};
	if (source.left() < 4) {
		tell_left_over(source, out);
		return out;
	}
	out.push_back(take_dtc_and_status(source));
	const std::string data = take_rest(source);
	out.push_back(data.empty() ? "no extended data" : "its data, and DTCs that may follow: " + data);
	return out;
}

struct layout_row {
	dtc_layout layout;
	lines (*decode)(byte_source);
};

constexpr layout_row layouts[] = {
		{dtc_layout::count, decode_count},
		{dtc_layout::status_list, decode_status_list},
		{dtc_layout::snapshot_list, decode_snapshot_list},
		{dtc_layout::snapshot_of_dtc, decode_snapshot_of_dtc},
		{dtc_layout::stored_data, decode_stored_data},
		{dtc_layout::extended_of_dtc, decode_extended_of_dtc},
		{dtc_layout::severity_list, decode_severity_list},
		{dtc_layout::fault_counters, decode_fault_counters},
		{dtc_layout::extended_by_record, decode_extended_by_record},
		{dtc_layout::memory_status_list, decode_memory_status_list},
};
static_assert(sizeof(layouts) / sizeof(layouts[0]) == 10, "every layout");

} // namespace

lines decode_dtc_answer(const dtc_report &report, const std::vector<uint8_t> &data)
{
	for (const layout_row &row : layouts) {
		if (row.layout == report.layout)
			return row.decode({data});
	}
	return {};
}
