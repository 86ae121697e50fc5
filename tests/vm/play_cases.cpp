// play_cases: plays system cases that are data, through quillet-query, where there is no Python.
//
// A case file is an array of cases. A case has its title ("case"), the request as it is sent ("request"),
// quillet-query's exit status ("status", 0 without it), the replies in their order ("replies", as json_match.h compares
// them), and may have the least and the most seconds that it takes ("at_least", "at_most"). "@PLUGINS@" in a request is
// the folder that --plugins names. Exit status 0 when every case is as expected.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <json-c/json.h>

#include "json_match.h"

namespace
{

struct settings {
	std::string query;
	std::string certificates;
	std::string broker;
	std::string plugins;
	std::string folder = "/tmp"; // for a case's request and for what quillet-query says besides
	std::vector<std::string> files;
};

struct json_releaser {
	void operator()(json_object *object) const
	{
		json_object_put(object);
	}
};
using json_pointer = std::unique_ptr<json_object, json_releaser>;

struct outcome {
	int status = -1;
	double seconds = 0;
	std::vector<std::string> lines;
};

// Runs a program with its standard output read; what it says on standard error goes to a file.
outcome run(std::vector<std::string> command, const std::string &errors)
{
	outcome result;
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0)
		return result;

	posix_spawn_file_actions_t actions;
	posix_spawn_file_actions_init(&actions);
	posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
	posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
	std::vector<char *> arguments;
	for (std::string &argument : command)
		arguments.push_back(argument.data());
	arguments.push_back(nullptr);
	pid_t process = 0;
	const auto began = std::chrono::steady_clock::now();
	const int error = posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
	posix_spawn_file_actions_destroy(&actions);
	close(ends[1]);

	FILE *output = fdopen(ends[0], "r");
	char *line = nullptr;
	size_t size = 0;
	while (error == 0 && getline(&line, &size, output) >= 0)
		result.lines.emplace_back(line);
	free(line);
	fclose(output);
	int status = 0;
	if (error == 0 && waitpid(process, &status, 0) == process && WIFEXITED(status))
		result.status = WEXITSTATUS(status);
	result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
	return result;
}

json_object *member(json_object *object, const char *name)
{
	json_object *value = nullptr;
	json_object_object_get_ex(object, name, &value);
	return value;
}

double number(json_object *object, const char *name, double otherwise)
{
	json_object *value = member(object, name);
	return value != nullptr ? json_object_get_double(value) : otherwise;
}

bool write_request(const settings &with, json_object *request, const std::string &path)
{
	std::string text = json_object_to_json_string_ext(request, JSON_C_TO_STRING_NOSLASHESCAPE);
	const std::string place = "@PLUGINS@";
	for (size_t found = text.find(place); found != std::string::npos; found = text.find(place))
		text.replace(found, place.size(), with.plugins);
	return static_cast<bool>(std::ofstream(path) << text << std::flush);
}

// Nothing, or what is not as expected.
std::string replies_difference(json_object *expected, const std::vector<std::string> &lines)
{
	const size_t count = json_object_array_length(expected);
	if (lines.size() != count)
		return std::to_string(lines.size()) + " replies, expected are " + std::to_string(count);
	for (size_t index = 0; index < count; ++index) {
		json_pointer reply(json_tokener_parse(lines[index].c_str()));
		std::string difference = json_difference(json_object_array_get_idx(expected, index), reply.get());
		if (!difference.empty())
			return difference;
	}
	return {};
}

std::vector<std::string> lines_of(const std::string &path)
{
	std::vector<std::string> lines;
	std::ifstream file(path);
	for (std::string line; std::getline(file, line);)
		lines.push_back(line + "\n");
	return lines;
}

std::string joined(const std::vector<std::string> &lines)
{
	std::string all;
	for (const std::string &line : lines)
		all += "      " + line;
	return all;
}

std::string play(const settings &with, json_object *example, double *seconds)
{
	if (!json_object_is_type(member(example, "replies"), json_type_array) || member(example, "request") == nullptr)
		return "the case has no request or no replies";
	const std::string request = with.folder + "/play_cases_request.json";
	const std::string errors = with.folder + "/play_cases_errors";
	if (!write_request(with, member(example, "request"), request))
		return request + " cannot be written";

	const outcome got = run({with.query, "--to", "AGENT-1", "--certs", with.certificates, "--broker", with.broker,
									"--timeout", "60", "--file", request},
			errors);
	*seconds = got.seconds;
	std::string difference = replies_difference(member(example, "replies"), got.lines);
	if (difference.empty() && got.status != static_cast<int>(number(example, "status", 0)))
		difference = "status " + std::to_string(got.status);
	if (difference.empty() && got.seconds < number(example, "at_least", 0))
		difference = "it came too early";
	if (difference.empty() && got.seconds > number(example, "at_most", 60))
		difference = "it came too late";
	if (!difference.empty())
		difference += "\n" + joined(got.lines) + joined(lines_of(errors));
	return difference;
}

struct tally {
	int good = 0;
	int different = 0;
};

bool play_file(const settings &with, const std::string &path, tally *count)
{
	json_pointer cases(json_object_from_file(path.c_str()));
	if (!json_object_is_type(cases.get(), json_type_array)) {
		fprintf(stderr, "play_cases: %s holds no array of cases\n", path.c_str());
		return false;
	}
	for (size_t index = 0; index < json_object_array_length(cases.get()); ++index) {
		json_object *example = json_object_array_get_idx(cases.get(), index);
		double seconds = 0;
		const std::string difference = play(with, example, &seconds);
		++(difference.empty() ? count->good : count->different);
		printf("   %s %s (%.1f s)%s%s\n", difference.empty() ? "good     " : "DIFFERENT",
				json_object_get_string(member(example, "case")), seconds, difference.empty() ? "" : "\n      ",
				difference.c_str());
		fflush(stdout);
	}
	return true;
}

}

int main(int argc, char **argv)
{
	settings with;
	CLI::App app("Plays system cases through quillet-query");
	app.add_option("--query", with.query, "The program quillet-query")->required();
	app.add_option("--certs", with.certificates, "Folder of the requester's identity")->required();
	app.add_option("--broker", with.broker, "HOST:PORT of the broker")->required();
	app.add_option("--plugins", with.plugins, "Folder of the key plug-in on the agent's machine")->required();
	app.add_option("files", with.files, "Files of cases")->required();
	CLI11_PARSE(app, argc, argv);

	tally count;
	bool readable = true;
	for (const std::string &file : with.files)
		readable = play_file(with, file, &count) && readable;
	printf("   %d cases are as expected, %d are not\n", count.good, count.different);
	return readable && count.different == 0 && count.good > 0 ? 0 : 1;
}
