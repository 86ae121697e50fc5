// Names that go into certificates: a node's unit address and its group. They become levels of topics, words of the
// broker's rules and names of folders, so a name that would mean something else in one of these places is refused.
#pragma once

#include <string>

// Says what is wrong with the name, in words for the user; empty when the name can be used.
std::string name_problem(const std::string &name);

// The same for a node, whose name is also a folder beside "ca" and "broker".
std::string node_name_problem(const std::string &name);
