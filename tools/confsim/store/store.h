// The configurations that outlive confsim: one directory, an XML file for each.
//
// A file is replaced as a whole or not at all, also when confsim is killed or the disk is full:
// the new text goes to a file beside it, reaches the disk, and takes the name.
#ifndef CONFSIM_STORE_H
#define CONFSIM_STORE_H

#include <string>

namespace confsim {

class store {
public:
    // Makes the directory when it is missing. Without a name nothing outlives confsim. Throws
    // failure, for instance while another confsim works with the directory.
    explicit store(const std::string &directory);
    ~store();
    store(const store &) = delete;
    store &operator=(const store &) = delete;

    // Whether anything outlives confsim.
    [[nodiscard]] bool is_open() const { return descriptor_ >= 0; }

    // Where the configuration of that name stands; empty when it was never written.
    [[nodiscard]] std::string file_of(const std::string &name) const;

    // Throws failure, with the file as before.
    void write(const std::string &name, const std::string &text) const;

    // The same; what stood there goes to the second name. When confsim is killed in between, that
    // can stand under both.
    void write_and_keep(const std::string &name, const std::string &text,
                        const std::string &name_of_former) const;

private:
    void prepare(const std::string &file, const std::string &text) const;
    [[nodiscard]] bool rename(const std::string &from, const std::string &to) const;
    [[noreturn]] void fail(const std::string &file, int error) const;

    std::string directory_;
    int descriptor_ = -1; // of the directory; locked
};

} // namespace confsim

#endif
