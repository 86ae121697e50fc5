// Runs the agent's binary: what it prints, how it ends, and what reaches the libraries under it.
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/identity_files.h"

namespace
{

using texts = std::vector<std::string>;
using std::chrono::steady_clock;

constexpr const char usage[] = "options:\n"
							   "\t-h : This message\n"
							   "\t-k <CerPath>: Movra Agent Ceritificate Path\n"
							   "\t-u <Broker IP>: default: localhost\n"
							   "\t-b <broker Port>: default: 9133\n"
							   "\t-v : increase verbosity\n";
constexpr auto patience = std::chrono::seconds(20);

// What a process starts with besides its arguments.
enum signal_setup { as_usual, sigint_blocked, sigint_ignored };

class agent_process
{
public:
	explicit agent_process(const texts &options, const char *variable = nullptr, signal_setup setup = as_usual)
	{
		texts arguments = emulator();
		arguments.push_back(QUILLET_AGENT);
		arguments.insert(arguments.end(), options.begin(), options.end());
		std::vector<char *> argv;
		for (std::string &argument : arguments)
			argv.push_back(argument.data());
		argv.push_back(nullptr);
		int out_pipe[2], error_pipe[2];
		EXPECT_EQ(pipe2(out_pipe, O_CLOEXEC), 0);
		EXPECT_EQ(pipe2(error_pipe, O_CLOEXEC), 0);
		pid = fork();
		if (pid == 0) {
			dup2(out_pipe[1], STDOUT_FILENO);
			dup2(error_pipe[1], STDERR_FILENO);
			become(argv.data(), variable, setup);
		}
		close(out_pipe[1]);
		close(error_pipe[1]);
		sources[0] = {out_pipe[0], POLLIN, 0};
		sources[1] = {error_pipe[0], POLLIN, 0};
	}

	~agent_process()
	{
		if (pid > 0) {
			kill(pid, SIGKILL);
			waitpid(pid, nullptr, 0);
		}
		for (struct pollfd &source : sources)
			if (source.fd >= 0)
				close(source.fd);
	}

	agent_process(const agent_process &) = delete;
	agent_process &operator=(const agent_process &) = delete;

	// Reads on until standard output has the text; false when it ends first or takes too long.
	bool wait_for(const std::string &text)
	{
		while (out.find(text) == std::string::npos)
			if (!read_some())
				return false;
		return true;
	}

	void interrupt() const
	{
		send(SIGINT);
	}

	void send(int signal) const
	{
		kill(pid, signal);
	}

	// The exit status once the process has ended by itself, or -1; everything it wrote has been read then.
	int end()
	{
		int status = wait_status();
		return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
	}

	// The signal that ended the process, or -1.
	int end_by_signal()
	{
		int status = wait_status();
		return status >= 0 && WIFSIGNALED(status) ? WTERMSIG(status) : -1;
	}

	std::string out, error;

private:
	// An agent that was built for another machine is started by this, which the environment names; else nothing.
	static texts emulator()
	{
		const char *command = getenv("QUILLET_EMULATOR");
		std::istringstream words(command != nullptr ? command : "");
		return {std::istream_iterator<std::string>(words), {}};
	}

	[[noreturn]] static void become(char **argv, const char *variable, signal_setup setup)
	{
		sigset_t mask;
		sigemptyset(&mask);
		if (setup == sigint_blocked)
			sigaddset(&mask, SIGINT);
		sigprocmask(SIG_SETMASK, &mask, nullptr);
		signal(SIGINT, setup == sigint_ignored ? SIG_IGN : SIG_DFL);
		setenv("LD_LIBRARY_PATH", QUILLET_STUB_LIBRARIES, 1);
		if (variable != nullptr)
			setenv(variable, "1", 1);
		execvp(argv[0], argv);
		_exit(126);
	}

	// As waitpid gives it, or -1 when the process does not end.
	int wait_status()
	{
		while (read_some())
			;
		if (sources[0].fd >= 0)
			return -1;
		int status = 0;
		waitpid(pid, &status, 0);
		pid = -1;
		return status;
	}

	// False when both streams have ended or nothing comes any more.
	bool read_some()
	{
		auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now());
		if ((sources[0].fd < 0 && sources[1].fd < 0) || left.count() <= 0 ||
				poll(sources.data(), sources.size(), static_cast<int>(left.count())) <= 0)
			return false;
		take(&sources[0], &out);
		take(&sources[1], &error);
		return true;
	}

	static void take(struct pollfd *source, std::string *text)
	{
		if (source->revents == 0)
			return;
		char part[4096];
		ssize_t n = read(source->fd, part, sizeof part);
		if (n > 0) {
			text->append(part, static_cast<size_t>(n));
			return;
		}
		close(source->fd);
		source->fd = -1;
	}

	steady_clock::time_point deadline = steady_clock::now() + patience;
	pid_t pid = -1;
	std::vector<struct pollfd> sources = std::vector<struct pollfd>(2);
};

size_t count(const std::string &text, const std::string &part)
{
	size_t found = 0;
	for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
		++found;
	return found;
}

struct command_line : testing::Test {
	identity_files identity;

	// Starts with the identity and these arguments, up to the end of the start, and stops.
	std::string output_of_a_run(texts arguments)
	{
		arguments.insert(arguments.begin(), {"-k", identity.directory()});
		agent_process agent(arguments);
		EXPECT_TRUE(agent.wait_for("movra_uds_util_debug_init"));
		agent.interrupt();
		EXPECT_EQ(agent.end(), 255);
		return agent.out;
	}
};

}

TEST_F(command_line, prints_the_usage_and_ends_well_on_anything_unknown)
{
	const struct {
		texts arguments;
		const char *complaint;
	} rows[] = {
			{{"-h"}, "invalid option -- 'h'"},
			{{"-x"}, "invalid option -- 'x'"},
			{{"-k", "/certs", "-h"}, "invalid option -- 'h'"},
			{{"-vh"}, "invalid option -- 'h'"},
			{{"--help"}, "invalid option -- '-'"},
			{{"-k"}, "option requires an argument -- 'k'"},
			{{"-u"}, "option requires an argument -- 'u'"},
			{{"-b"}, "option requires an argument -- 'b'"},
			{{"-t"}, "option requires an argument -- 't'"},
			{{"-l"}, "option requires an argument -- 'l'"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(testing::PrintToString(row.arguments));
		agent_process agent(row.arguments);
		EXPECT_EQ(agent.end(), 0);
		EXPECT_EQ(agent.out, usage);
		EXPECT_NE(agent.error.find(row.complaint), std::string::npos) << agent.error;
	}
}

TEST_F(command_line, refuses_to_start_without_a_certificate_directory)
{
	for (const texts &arguments : {texts{}, texts{"-u", "host", "-v"}, texts{"word"}, texts{"--", "-k", "/certs"}}) {
		SCOPED_TRACE(testing::PrintToString(arguments));
		agent_process agent(arguments);
		EXPECT_EQ(agent.end(), 255);
		EXPECT_EQ(agent.out, "Invalid Certificate Path\n");
		EXPECT_EQ(agent.error, "");
	}
}

TEST_F(command_line, gives_the_broker_of_the_options_to_the_bus_library)
{
	const struct {
		texts arguments;
		const char *url;
	} rows[] = {
			{{}, "tcp://localhost:9133"},
			{{"-u", "10.0.0.1"}, "tcp://10.0.0.1:9133"},
			{{"-b", "1883"}, "tcp://localhost:1883"},
			{{"-b", "70000"}, "tcp://localhost:70000"},
			{{"-b", "port"}, "tcp://localhost:0"},
			{{"-b", "12x"}, "tcp://localhost:12"},
			{{"-b", "0x10"}, "tcp://localhost:0"},
			{{"-b", "4294967297"}, "tcp://localhost:-1"}, // the largest number, as on a 32-bit unit
			{{"-uhost", "-b1"}, "tcp://host:1"},
			{{"-u", "first", "-b", "1", "-u", "second", "-b", "2"}, "tcp://second:2"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(testing::PrintToString(row.arguments));
		std::string out = output_of_a_run(row.arguments);
		EXPECT_EQ(count(out, std::string("tervbus_init_client ") + row.url + "\n"), 1u) << out;
	}
}

TEST_F(command_line, raises_the_verbosity_with_each_v)
{
	const struct {
		texts arguments;
		const char *verbosity;
	} rows[] = {
			{{}, "2"},
			{{"-v"}, "3"},
			{{"-vv"}, "4"},
			{{"-v", "-v"}, "4"},
			{{"-v", "-u", "host", "-vv"}, "5"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(testing::PrintToString(row.arguments));
		std::string out = output_of_a_run(row.arguments);
		EXPECT_EQ(count(out, std::string("movra_uds_util_debug_init ") + row.verbosity + "\n"), 1u) << out;
	}
}

TEST_F(command_line, takes_the_last_certificate_directory)
{
	std::string out = output_of_a_run({"-k", "/nowhere", "-k", identity.directory()});

	EXPECT_EQ(count(out, "cert_dir=" + identity.directory() + "\n"), 1u) << out;
}

TEST_F(command_line, accepts_a_data_directory_and_an_extra_argument_that_change_nothing)
{
	auto without_stamps = [](std::string text) {
		for (size_t at; (at = text.find('[')) != std::string::npos;) // the stamp, or a colour's number
			text.erase(at, text.find_first_of("]m", at) - at);
		return text;
	};

	EXPECT_EQ(without_stamps(output_of_a_run({"-t", "/x", "-l", "y"})), without_stamps(output_of_a_run({})));
}

TEST_F(command_line, ends_once_and_in_order_on_sigint)
{
	agent_process agent({"-k", identity.directory()});
	ASSERT_TRUE(agent.wait_for("movra_uds_util_debug_init"));
	agent.interrupt();
	agent.interrupt();

	EXPECT_EQ(agent.end(), 255);
	EXPECT_EQ(count(agent.out, "tervbus_stop_client\n"), 1u);
	EXPECT_EQ(count(agent.out, "tervbus_fini_ll\n"), 1u);
	EXPECT_EQ(count(agent.out, "Timer de init success\n"), 1u);
	EXPECT_LT(agent.out.find("tervbus_stop_client"), agent.out.find("Timer de init success"));
}

TEST_F(command_line, keeps_a_sigint_that_comes_during_the_start)
{
	agent_process agent({"-k", identity.directory()}, "STUB_SIGINT_IN_START");

	EXPECT_EQ(agent.end(), 255);
	EXPECT_LT(agent.out.find("movra_uds_util_debug_init"), agent.out.find("tervbus_stop_client")) << agent.out;
	EXPECT_EQ(count(agent.out, "tervbus_stop_client\n"), 1u);
}

TEST_F(command_line, hears_sigint_whatever_it_was_started_with)
{
	for (signal_setup setup : {sigint_blocked, sigint_ignored}) {
		SCOPED_TRACE(setup);
		agent_process agent({"-k", identity.directory()}, nullptr, setup);
		ASSERT_TRUE(agent.wait_for("movra_uds_util_debug_init"));
		agent.interrupt();
		EXPECT_EQ(agent.end(), 255);
	}
}

TEST_F(command_line, leaves_other_signals_their_default_action)
{
	for (int signal : {SIGTERM, SIGHUP, SIGUSR1}) {
		SCOPED_TRACE(signal);
		agent_process agent({"-k", identity.directory()});
		ASSERT_TRUE(agent.wait_for("movra_uds_util_debug_init"));
		agent.send(signal);

		EXPECT_EQ(agent.end_by_signal(), signal);
		EXPECT_EQ(count(agent.out, "tervbus_stop_client"), 0u);
	}
}

TEST_F(command_line, stays_up_without_an_identity_until_sigint)
{
	agent_process agent({"-k", "/nowhere"});
	ASSERT_TRUE(agent.wait_for("movra_uds_util_debug_init 2\n")) << agent.out;
	EXPECT_EQ(count(agent.out, "tervbus_init_client"), 0u);
	EXPECT_EQ(count(agent.out, "Failed to load identity certificate from /nowhere\n"), 1u) << agent.out;
	agent.interrupt();

	EXPECT_EQ(agent.end(), 255);
}

TEST_F(command_line, prints_its_banner_first)
{
	std::string out = output_of_a_run({});

	EXPECT_NE(out.substr(0, out.find('\n')).find("Orlo Movra Quillet Version: -"), std::string::npos) << out;
}
