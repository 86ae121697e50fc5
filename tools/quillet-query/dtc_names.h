// ReadDTCInformation (ISO 14229-1, service 0x19) in names for people: reports, status bits, severities, DTC numbers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What a report's request carries after the sub-function.
enum dtc_need : unsigned {
	needs_nothing = 0,
	needs_status_mask = 1,
	needs_severity_mask = 2,
	needs_dtc = 4,
	needs_record = 8,
	needs_memory = 16,
};

// How a report's answer is laid out after the service and the sub-function.
enum class dtc_layout {
	count,              // availability mask, format, number of DTCs
	status_list,        // availability mask, then DTC and status each
	snapshot_list,      // DTC and record number each
	snapshot_of_dtc,    // DTC, status, then records of snapshot data
	stored_data,        // record number, DTC, status and identifiers each
	extended_of_dtc,    // DTC, status, then records of extended data
	severity_list,      // availability mask, then severity, functional unit, DTC and status each
	fault_counters,     // DTC and fault detection counter each
	extended_by_record, // record number, then DTC, status and extended data each
	memory_status_list, // memory, availability mask, then DTC and status each
};

struct dtc_report {
	uint8_t number;         // the sub-function
	const char *name;       // for people
	const char *agent_name; // in requests and replies
	unsigned needs;         // of dtc_need
	dtc_layout layout;
};

// NULL when there is none of this name.
const dtc_report *dtc_report_by_name(const std::string &name);
const dtc_report *dtc_report_by_agent_name(const std::string &name);

// All short names with commas between them.
std::string dtc_report_names();

// One line for each report: its name and the options it needs.
std::string dtc_report_help();

// The options that a set of needs stands for, as in "--dtc and --record".
std::string dtc_need_options(unsigned needs);

// A mask by names with commas between them, "all", or one byte in hexadecimal. False with the cause in error.
bool parse_status_mask(const std::string &text, uint8_t &mask, std::string &error);
bool parse_severity_mask(const std::string &text, uint8_t &mask, std::string &error);

// The names of the bits that are set, with commas between them; "none" for 0.
std::string status_text(uint8_t status);
std::string severity_text(uint8_t severity);

// The names that requests have for the bits that are set.
std::vector<std::string> agent_status_names(uint8_t mask);

// A DTC number in SAE form with its failure type (P0123-45), or in six hexadecimal digits, with or without 0x.
bool parse_dtc(const std::string &text, uint32_t &dtc);

// The 24 bits of a DTC number in SAE form (SAE J2012-DA), as in P0123-45.
std::string sae_text(uint32_t dtc);

// SAE form and hexadecimal digits, as in "P0123-45 (012345)".
std::string dtc_text(uint32_t dtc);

// The meaning of a DTCFormatIdentifier.
std::string dtc_format_name(uint8_t format);
