#include "decode_reply.h"

#include <vector>

#include "decode_dtc.h"
#include "hex_text.h"
#include "nrc_names.h"

namespace
{

using bytes = std::vector<uint8_t>;

// What an agent says when no ECU has answered a request for DTCs.
constexpr const char *nobody_answered = "send_dtc_response_to_bridge failed";

constexpr uint8_t negative_response = 0x7F;
constexpr uint8_t read_dtc_information = 0x19;
constexpr uint8_t data_by_identifier = 0x62;
constexpr size_t negative_response_length = 3;

bool is_printable(char character)
{
	return character >= 0x20 && character <= 0x7E;
}

// A text from outside, safe for a terminal. Bytes of UTF-8 stay.
std::string shown(const std::string &text)
{
	std::string safe;
	for (char character : text) {
		const uint8_t byte = static_cast<uint8_t>(character);
		if (is_printable(character) || byte >= 0x80)
			safe += character;
		else
			safe += "\\x" + hex_of(byte);
	}
	return safe;
}

json_object *element_of(json_object *list, size_t index)
{
	return json_object_is_type(list, json_type_array) ? json_object_array_get_idx(list, index) : nullptr;
}

size_t length_of(json_object *list)
{
	return json_object_is_type(list, json_type_array) ? json_object_array_length(list) : 0;
}

// The request identifiers of the ECUs that a request names, in its order.
std::vector<std::string> asked_ecus(json_object *request)
{
	json_object *can = member_of(request, "body", "can");
	if (json_object_is_type(can, json_type_object))
		return {text_of(can, "phy-req-id")};
	std::vector<std::string> ids;
	for (size_t index = 0; index < length_of(can); index++)
		ids.push_back(text_of(element_of(can, index), "phy-req-id"));
	return ids;
}

std::string label_of(const std::string &request_id, const ecu_names &names)
{
	const auto found = names.find(request_id);
	return "ECU " + shown(request_id) + (found == names.end() ? "" : " " + shown(found->second)) + ": ";
}

// Is it a refusal? A positive answer can begin with the same byte, but not have the same length as well.
bool is_refusal(const bytes &data)
{
	return data.size() == negative_response_length && data[0] == negative_response && data[1] == read_dtc_information;
}

std::string decode_ecu(const dtc_report *report, const std::string &data)
{
	bytes answer;
	if (!parse_hex_bytes(data, answer))
		return "not hexadecimal: " + shown(data) + "\n";
	if (is_refusal(answer))
		return refusal_text(answer[2]) + "\n";
	if (report == nullptr)
		return hex_of(answer) + "\n";
	std::string text;
	for (const std::string &line : decode_dtc_answer(*report, answer))
		text += (text.empty() ? "" : "  ") + line + "\n";
	return text;
}

std::string decode_dtcs(json_object *request, json_object *uds, const ecu_names &names)
{
	const std::string subfunction = text_of(uds, "subfunction");
	const dtc_report *report = dtc_report_by_agent_name(subfunction);
	std::string text = "report " + (report != nullptr ? report->name : shown(subfunction)) + "\n";
	json_object *answers = member_of(uds, "data-record");
	std::vector<bool> told(length_of(answers), false);

	for (const std::string &asked : asked_ecus(request)) {
		size_t index = 0;
		while (index < told.size() && (told[index] || text_of(element_of(answers, index), "phy-req-id") != asked))
			index++;
		text += label_of(asked, names);
		if (index == told.size()) {
			text += "no answer\n";
			continue;
		}
		told[index] = true;
		text += decode_ecu(report, text_of(element_of(answers, index), "data"));
	}
	for (size_t index = 0; index < told.size(); index++) {
		json_object *answer = element_of(answers, index);
		if (!told[index])
			text += label_of(text_of(answer, "phy-req-id"), names) + decode_ecu(report, text_of(answer, "data"));
	}
	return text;
}

std::string decode_error(json_object *request, json_object *error, const ecu_names &names)
{
	const std::string cause = text_of(error, "uds-nrc");
	std::string text = "error " + shown(text_of(error, "error-type")) + ": " + shown(cause) + "\n";
	if (cause != nobody_answered || member_of(request, "body", "uds") == nullptr)
		return text;
	for (const std::string &asked : asked_ecus(request))
		text += label_of(asked, names) + "no answer\n";
	return text;
}

std::string without_prefix(const std::string &text)
{
	return text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? text.substr(2) : text;
}

// The text that an identifier's data are, in quotes; empty when they are none.
std::string data_text(const bytes &answer)
{
	std::string text;
	if (answer.size() <= 3 || answer[0] != data_by_identifier)
		return text;
	for (size_t index = 3; index < answer.size(); index++) {
		const char character = static_cast<char>(answer[index]);
		if (!is_printable(character))
			return "";
		text += character;
	}
	return " \"" + text + "\"";
}

std::string decode_command(json_object *command, json_object *response)
{
	std::string text = without_prefix(text_of(response, "service")) + text_of(command, "subfn") +
			without_prefix(text_of(command, "data"));
	text = shown(text) + ": ";
	const std::string data = text_of(response, "response-data");
	const std::string error = text_of(response, "error");
	bytes answer;
	if (!parse_hex_bytes(data, answer))
		return text + shown(error) + "\n";
	text += hex_of(answer);
	if (answer.size() == negative_response_length && answer[0] == negative_response)
		return text + " " + refusal_text(answer[2]) + "\n";
	return text + (error == "none" ? data_text(answer) : " " + shown(error)) + "\n";
}

std::string decode_routine(json_object *request, json_object *responses)
{
	json_object *commands = member_of(request, "body", "routine", "commands");
	std::string text;
	for (size_t index = 0; index < length_of(responses); index++)
		text += decode_command(element_of(commands, index), element_of(responses, index));
	return text.empty() ? "no commands\n" : text;
}

std::string decode_version(const std::string &text)
{
	return text.empty() ? "version: an empty text\n" : "version " + shown(text) + "\n";
}

} // namespace

std::string decode_reply(const std::string &request, const std::string &reply, const ecu_names &names)
{
	json_pointer asked(json_tokener_parse(request.c_str()));
	json_pointer document(json_tokener_parse(reply.c_str()));
	json_object *body = member_of(document.get(), "body");
	json_object *error = member_of(body, "error");
	json_object *uds = member_of(body, "uds");
	json_object *responses = member_of(body, "routine-response");
	if (json_object_is_type(error, json_type_object))
		return decode_error(asked.get(), error, names);
	if (json_object_is_type(uds, json_type_object))
		return decode_dtcs(asked.get(), uds, names);
	if (json_object_is_type(member_of(body, "version"), json_type_string))
		return decode_version(text_of(body, "version"));
	if (json_object_is_type(responses, json_type_array))
		return decode_routine(asked.get(), responses);
	return "a reply of unknown form: " + shown(reply) + "\n";
}
