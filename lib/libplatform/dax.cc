#include "platform/dax.h"
#include "platform/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

struct ddl_handle {
	std::vector<std::string> path;
};

namespace {

struct config_db {
	bool open = false;
	std::vector<std::vector<std::string>> statements;
	std::string parse_error;	/* first line that did not parse */
};

config_db db;

bool parse_line(const std::string &line, std::vector<std::string> *words)
{
	std::istringstream in(line);
	std::string w;
	if (!(in >> w) || w != "set")
		return false;
	while (in >> w) {
		if (w.find_first_of("{};") != std::string::npos)
			return false;
		words->push_back(w);
	}
	return !words->empty();
}

} // namespace

extern "C" int dax_open_db(void *unused, const char *program, const char *schema,
                           unsigned schema_number, int check)
{
	(void)unused, (void)program, (void)schema, (void)schema_number, (void)check;
	std::ifstream in(tolvar::path(DAX_CONFIG_PATH));
	if (!in)
		return errno != 0 ? errno : ENOENT;
	db = config_db{};
	db.open = true;
	std::string line;
	for (int lineno = 1; std::getline(in, line); lineno++) {
		size_t start = line.find_first_not_of(" \t\r");
		if (start == std::string::npos || line[start] == '#')
			continue;
		std::vector<std::string> words;
		if (!parse_line(line, &words)) {
			if (db.parse_error.empty())
				db.parse_error = "line " + std::to_string(lineno) +
				                 ": syntax error: " + line.substr(start);
			continue;
		}
		db.statements.push_back(std::move(words));
	}
	return 0;
}

extern "C" int dax_close_db(void)
{
	if (!db.open)
		return EBADF;
	db = config_db{};
	return 0;
}

extern "C" int ddl_access_object_find_by_name(ddl_handle_t *parent,
                                              const char *const *path,
                                              ddl_handle_t **out, char *errmsg,
                                              size_t errlen)
{
	auto fail = [&](const std::string &text) {
		if (errmsg != nullptr && errlen > 0)
			snprintf(errmsg, errlen, "%s", text.c_str());
		return 0;
	};
	if (!db.open)
		return fail("configuration database is not open");
	if (!db.parse_error.empty())
		return fail(db.parse_error);
	std::vector<std::string> want = parent != nullptr ? parent->path
	                                                  : std::vector<std::string>{};
	for (const char *const *p = path; *p != nullptr; p++)
		want.emplace_back(*p);
	for (const auto &st : db.statements) {
		if (st.size() < want.size())
			continue;
		if (std::equal(want.begin(), want.end(), st.begin())) {
			if (out != nullptr)
				*out = new ddl_handle{want};
			return 1;
		}
	}
	return 0;
}

extern "C" int ddl_access_value(const char *const *path, char *buf, size_t size,
                                char *errmsg, size_t errlen)
{
	auto fail = [&](const std::string &text) {
		if (errmsg != nullptr && errlen > 0)
			snprintf(errmsg, errlen, "%s", text.c_str());
		return -1;
	};
	if (!db.open)
		return fail("configuration database is not open");
	if (!db.parse_error.empty())
		return fail(db.parse_error);
	std::vector<std::string> want;
	for (const char *const *p = path; *p != nullptr; p++)
		want.emplace_back(*p);
	int found = 0;
	for (const auto &st : db.statements) {
		if (st.size() != want.size() + 1 ||
		    !std::equal(want.begin(), want.end(), st.begin()))
			continue;
		snprintf(buf, size, "%s", st.back().c_str());
		found = 1;
	}
	return found;
}

extern "C" void ddl_access_release(ddl_handle_t *obj)
{
	delete obj;
}

extern "C" int dax_config_value(const char *const *path, char *value,
                                size_t len)
{
	std::ifstream in(tolvar::path(DAX_CONFIG_PATH));
	std::vector<std::string> want;
	for (const char *const *p = path; *p != nullptr; p++)
		want.emplace_back(*p);
	std::string line;
	while (in && std::getline(in, line)) {
		std::vector<std::string> words;
		if (!parse_line(line, &words) || words.size() <= want.size() ||
		    !std::equal(want.begin(), want.end(), words.begin()))
			continue;
		const std::string &v = words[want.size()];
		if (v.size() >= len)
			return 0;
		memcpy(value, v.c_str(), v.size() + 1);
		return 1;
	}
	return 0;
}
