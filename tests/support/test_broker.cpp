#include "support/test_broker.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace
{

constexpr const char *broker_programs[] = {"/usr/sbin/mosquitto", "/usr/local/sbin/mosquitto", "/usr/bin/mosquitto"};
constexpr int attempts = 1000; // of 10 ms
constexpr auto attempt_pause = std::chrono::milliseconds(10);

const char *broker_program()
{
	for (const char *program : broker_programs)
		if (access(program, X_OK) == 0)
			return program;
	return nullptr;
}

// Under user-mode emulation the broker is the machine's own, and so has to be its plugin; the environment names it.
std::string broker_plugin()
{
	const char *other = getenv("QUILLET_BROKER_PLUGIN");
	return other != nullptr ? other : QUILLET_BROKER_PLUGIN;
}

// In memory where there is such a folder: the broker writes its state to disk with every message.
std::string new_folder()
{
	std::string pattern = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
	pattern += "/quillet_broker_XXXXXX";
	return mkdtemp(pattern.data()) != nullptr ? pattern : "";
}

// In the child, between fork and exec.
[[noreturn]] void run_broker(const char *program, const std::string &configuration, const std::string &log)
{
	prctl(PR_SET_PDEATHSIG, SIGKILL);
	const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
	dup2(output, STDOUT_FILENO);
	dup2(output, STDERR_FILENO);
	execl(program, program, "-c", configuration.c_str(), nullptr);
	_exit(127);
}

} // namespace

void test_write_file(const std::string &path, const std::string &text)
{
	std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
	::chmod(path.c_str(), 0600);
}

std::string test_read_file(const std::string &path)
{
	std::ostringstream text;
	text << std::ifstream(path, std::ios::binary).rdbuf();
	return text.str();
}

test_broker::test_broker(const test_ca &ca, const test_broker_options &options) : folder_(new_folder())
{
	mkdir(path("state").c_str(), 0700);
	set_trust(ca.certificate_pem);
	set_certificate(
			test_ca_issue(ca, {.common_names = {"test broker"}, .alternative_names = "IP:127.0.0.1,DNS:localhost"}));
	set_rules(options.rules);
	write_configuration(options);
}

test_broker::~test_broker()
{
	end(SIGKILL);
	std::error_code ignored;
	std::filesystem::remove_all(folder_, ignored);
}

std::string test_broker::path(const char *name) const
{
	return folder_ + "/" + name;
}

void test_broker::write_configuration(const test_broker_options &options) const
{
	std::ostringstream text;
	text << "per_listener_settings true\nset_tcp_nodelay true\n"
		 << "persistence true\npersistence_location " << path("state") << "/\n"
		 << "autosave_on_changes true\nautosave_interval 1\n"
		 << "max_queued_messages 10000\nmessage_size_limit 16777216\n"
		 << "log_dest stderr\nlog_type error\nlog_type warning\nlog_type notice\n"
		 << "user root\n" // when root runs the tests: the folder is root's
		 << "listener " << port_.number() << " 127.0.0.1\nallow_anonymous false\nallow_zero_length_clientid false\n"
		 << "cafile " << path("ca.pem") << "\ncertfile " << path("cert.pem") << "\nkeyfile " << path("private.pem")
		 << "\ntls_version " << options.tls_version << "\nrequire_certificate true\n"
		 << "use_identity_as_username true\nuse_username_as_clientid true\n"
		 << "plugin " << broker_plugin() << "\nplugin_opt_rules " << path("rules") << "\n";
	for (const std::string &bridge : options.bridges)
		text << "plugin_opt_bridge " << bridge << "\n";
	test_write_file(path("mosquitto.conf"), text.str());
}

void test_broker::set_certificate(const test_credentials &credentials)
{
	test_write_file(path("cert.pem"), credentials.certificate_pem);
	test_write_file(path("private.pem"), credentials.key_pem);
}

void test_broker::set_trust(const std::string &ca_certificate_pem)
{
	test_write_file(path("ca.pem"), ca_certificate_pem);
}

void test_broker::set_rules(const std::string &rules)
{
	test_write_file(path("rules"), rules);
}

bool test_broker::listens() const
{
	const int fd = loopback_connect(port_.number());
	if (fd < 0)
		return false;
	close(fd);
	return true;
}

void test_broker::start()
{
	if (broker_program() == nullptr)
		FAIL() << "no mosquitto on this machine: apt-get install mosquitto";
	ASSERT_TRUE(try_start()) << log();
}

bool test_broker::try_start()
{
	const char *program = broker_program();
	const std::string configuration = path("mosquitto.conf");
	const std::string log_path = path("log");

	process_ = fork();
	if (process_ == 0)
		run_broker(program, configuration, log_path);
	for (int i = 0; i < attempts; i++) {
		if (listens())
			return true;
		if (waitpid(process_, nullptr, WNOHANG) == process_) {
			process_ = -1;
			return false;
		}
		std::this_thread::sleep_for(attempt_pause); // another process is waited for
	}
	return false;
}

void test_broker::end(int signal)
{
	if (process_ <= 0)
		return;
	::kill(process_, signal);
	::kill(process_, SIGCONT);
	waitpid(process_, nullptr, 0);
	process_ = -1;
}

void test_broker::stop()
{
	end(SIGTERM);
}

void test_broker::kill()
{
	end(SIGKILL);
}

void test_broker::freeze()
{
	::kill(process_, SIGSTOP);
}

void test_broker::thaw()
{
	::kill(process_, SIGCONT);
}

void test_broker::reload()
{
	::kill(process_, SIGHUP);
}

uint16_t test_broker::port() const
{
	return port_.number();
}

std::string test_broker::url() const
{
	return port_.url();
}

std::string test_broker::log() const
{
	return test_read_file(path("log"));
}

bool test_broker::wait_log(const std::string &text) const
{
	for (int i = 0; i < attempts; i++) {
		if (log().find(text) != std::string::npos)
			return true;
		std::this_thread::sleep_for(attempt_pause); // another process is waited for
	}
	return false;
}
