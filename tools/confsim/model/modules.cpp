// See modules.h.
#include "model/modules.h"

#include "failure.h"
#include "tree/nearest.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <system_error>

namespace confsim::yang {

namespace {

namespace fs = std::filesystem;

// The first word behind blanks and comments.
std::string first_word(const std::string &text)
{
    std::size_t at = 0;
    while ((at = text.find_first_not_of(" \t\r\n", at)) != std::string::npos) {
        const bool is_line = text.compare(at, 2, "//") == 0;
        if (!is_line && text.compare(at, 2, "/*") != 0) {
            return text.substr(at, text.find_first_of(" \t\r\n", at) - at);
        }
        const std::size_t end = text.find(is_line ? "\n" : "*/", at + 2);
        at = end == std::string::npos ? end : end + (is_line ? 1 : 2);
    }
    return "";
}

// A submodule is read with its module.
bool is_submodule(const fs::path &file)
{
    std::ifstream opened(file);
    std::stringstream text;
    text << opened.rdbuf();
    return first_word(text.str()) == "submodule";
}

bool is_yang(const fs::path &file)
{
    return file.extension() == ".yang" || file.extension() == ".yin";
}

// The modules of a directory, of each the newest revision, as NAME@REVISION.yang says it.
std::vector<fs::path> modules_in(const fs::path &directory)
{
    std::map<std::string, fs::path> newest; // by name
    for (const auto &each : fs::directory_iterator(directory)) {
        if (is_yang(each.path()) && each.is_regular_file() && !is_submodule(each.path())) {
            const std::string stem = each.path().stem();
            fs::path &known = newest[stem.substr(0, stem.find('@'))];
            known = std::max(known, each.path());
        }
    }
    std::vector<fs::path> files;
    files.reserve(newest.size());
    for (const auto &[name, file] : newest) {
        files.push_back(file);
    }
    if (files.empty()) {
        throw failure("there is no YANG module in " + directory.string());
    }
    return files;
}

void search(ly_ctx *context, const fs::path &directory)
{
    const LY_ERR result =
        ly_ctx_set_searchdir(context, directory.empty() ? "." : directory.c_str());
    if (result != LY_EEXIST) {
        check(result, context, told::cause);
    }
}

std::string load(ly_ctx *context, const fs::path &file)
{
    if (fs::exists(file) && !fs::is_regular_file(file)) {
        throw failure("not a regular file"); // libyang maps it, and would wait for what never comes
    }
    ly_in *opened = nullptr;
    check(ly_in_new_filepath(file.c_str(), 0, &opened), context);
    const input_ptr input(opened);
    lys_module *module = nullptr;
    const LYS_INFORMAT format = file.extension() == ".yin" ? LYS_IN_YIN : LYS_IN_YANG;
    check(lys_parse(context, input.get(), format, nullptr, &module), context, told::line);
    return module->name;
}

// Each as MODULE:NAME; the features of a module are switched on together.
void enable(ly_ctx *context, const std::vector<std::string> &features)
{
    std::map<std::string, std::vector<const char *>> wanted; // by module
    for (const std::string &each : features) {
        const std::size_t colon = each.find(':');
        if (colon == std::string::npos) {
            throw failure("a feature is given as MODULE:NAME, not " + each);
        }
        wanted[each.substr(0, colon)].push_back(each.c_str() + colon + 1);
    }
    for (auto &[name, names] : wanted) {
        lys_module *module = ly_ctx_get_module_implemented(context, name.c_str());
        for (const char *each : names) {
            if (module == nullptr ||
                (std::string(each) != "*" && lys_feature_value(module, each) == LY_ENOTFOUND)) {
                throw failure("there is no feature " + name + ":" + each);
            }
        }
        names.push_back(nullptr);
        check(lys_set_implemented(module, names.data()), context);
    }
}

} // namespace

loaded_modules load_modules(const model_sources &from)
{
    (void)ly_log_options(LY_LOSTORE); // complaints are ours to print
    ly_ctx *made = nullptr;
    const std::uint16_t options =
        LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIR_CWD | LY_CTX_REF_IMPLEMENTED;
    if (ly_ctx_new(nullptr, options, &made) != LY_SUCCESS) {
        throw failure("libyang cannot be used");
    }
    loaded_modules all{context_ptr(made), {}};
    std::string current;
    try {
        std::vector<fs::path> files;
        for (const std::string &each : from.modules) {
            current = each;
            if (!fs::is_directory(each)) {
                search(made, fs::path(each).parent_path());
                files.emplace_back(each);
                continue;
            }
            search(made, each);
            const std::vector<fs::path> inside = modules_in(each);
            files.insert(files.end(), inside.begin(), inside.end());
        }
        for (const std::string &each : from.directories) {
            current = each;
            search(made, each);
        }
        for (const fs::path &each : files) {
            current = each;
            all.named.insert(load(made, each));
        }
        current = "--feature";
        enable(made, from.features);
    } catch (const fs::filesystem_error &error) {
        throw failure(current + ": " + error.code().message());
    } catch (const failure &error) {
        throw failure(current + ": " + error.what());
    }
    return all;
}

} // namespace confsim::yang
