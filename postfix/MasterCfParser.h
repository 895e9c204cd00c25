// MasterCfParser: the grammar of master.cf (master(5)), reading into a MasterCfContent.
//
// Stricter than Postfix: service names have no upper-case letters, and a comment cannot end an entry. What is
// read keeps its text byte for byte. Spirit Classic, without a skipper.
#pragma once

#include "postfix/CommonParsers.h"
#include "postfix/MasterCfContent.h"

#include <boost/spirit/include/classic_assign_actor.hpp>
#include <boost/spirit/include/classic_push_back_actor.hpp>

#include <string>

namespace zorvo::mail::postfix {

/// Adds the matched text of a comment or empty line to the content.
class MasterCfRawAppender {
public:
    explicit MasterCfRawAppender(MasterCfContent& content) : content_(content) {}

    template <class Iterator>
    void operator()(Iterator begin, Iterator end) const
    {
        content_.addRawLine(std::string(begin, end));
    }

private:
    MasterCfContent& content_;
};

/// Adds the entry that was read with its matched text to the content, and clears it for the next one.
class MasterCfModuleAppender {
public:
    MasterCfModuleAppender(MasterCfContent& content, ModuleInfo& entry) : content_(content), entry_(entry) {}

    template <class Iterator>
    void operator()(Iterator begin, Iterator end) const
    {
        content_.addModule(entry_, std::string(begin, end));
        entry_ = ModuleInfo();
    }

private:
    MasterCfContent& content_;
    ModuleInfo& entry_;
};

/// Serves one parse; the content is borrowed.
struct MasterCfParser : zorvo::parser::classic::grammar<MasterCfParser> {
    explicit MasterCfParser(MasterCfContent& target) : content(target) {}

    template <class Scanner>
    struct definition {
        explicit definition(const MasterCfParser& self);
        const zorvo::parser::classic::rule<Scanner>& start() const { return file_; }

    private:
        using Rule = zorvo::parser::classic::rule<Scanner>;
        Rule file_, line_, module_, name_, type_, private_, unprivileged_, chroot_, wakeup_, maxProc_,
            command_, word_;
    };

    MasterCfContent& content;
    mutable ModuleInfo entry; ///< The one being read.
};

// Long because the grammar is one thing: its sets, then its rules from the file down to a word.
template <class Scanner>
MasterCfParser::definition<Scanner>::definition(const MasterCfParser& self)
{
    using namespace zorvo::parser;
    using classic::assign_a;
    using classic::ch_p;
    using classic::push_back_a;
    using classic::str_p;
    using classic::uint_p;

    // In a set a hyphen between two characters is a range; ")-_" therefore takes in digits, upper-case
    // letters and brackets.
    static const classic::chset<char> nameSet("-a-z0-9_:.");
    static const classic::chset<char> wordSet("/!@$%$^&*()-_=+\\|[]{}:;'\"<>.,?*~`");
    static const classic::chset<char> alphanumeric("a-zA-Z0-9");
    static const boost::logic::tribool yes = true;
    static const boost::logic::tribool no = false;
    static const bool flagged = true;
    static const ModuleType inet = ModuleType::Inet;
    static const ModuleType unixDgram = ModuleType::UnixDgram;
    static const ModuleType unixStream = ModuleType::Unix;
    static const ModuleType fifo = ModuleType::Fifo;
    static const ModuleType pass = ModuleType::Pass;
    const continuous_spaces_parser& sep = continuous_spaces_p;
    ModuleInfo& info = self.entry;

    file_ = line_ >> *(lf_p >> line_) >> !lf_p;
    line_ = module_[MasterCfModuleAppender(self.content, info)] |
            comments_line_p[MasterCfRawAppender(self.content)] |
            empty_line_p[MasterCfRawAppender(self.content)];
    // smtp      inet  n       -       y       -       -       smtpd -o syslog_name=postfix/smtp
    module_ = name_ >> sep >> type_ >> sep >> private_ >> sep >> unprivileged_ >> sep >> chroot_ >> sep >>
              wakeup_ >> sep >> maxProc_ >> sep >> command_ >> *swsp_p;
    name_ = (+nameSet)[assign_a(info.name)];
    type_ = str_p("inet")[assign_a(info.type, inet)] | str_p("unix-dgram")[assign_a(info.type, unixDgram)] |
            str_p("unix")[assign_a(info.type, unixStream)] | str_p("fifo")[assign_a(info.type, fifo)] |
            str_p("pass")[assign_a(info.type, pass)];
    private_ = ch_p('y')[assign_a(info.privateMode, yes)] | ch_p('n')[assign_a(info.privateMode, no)] | '-';
    unprivileged_ =
        ch_p('y')[assign_a(info.unprivileged, yes)] | ch_p('n')[assign_a(info.unprivileged, no)] | '-';
    chroot_ = ch_p('y')[assign_a(info.chroot, yes)] | ch_p('n')[assign_a(info.chroot, no)] | '-';
    wakeup_ = ch_p('-') | (uint_p[assign_a(info.wakeup)] >> !ch_p('?')[assign_a(info.wakeupIfUsed, flagged)]);
    maxProc_ = ch_p('-') | uint_p[assign_a(info.maxProc)];
    command_ = word_[push_back_a(info.command)] >> *(sep >> word_[push_back_a(info.command)]);
    word_ = +(alphanumeric | wordSet);
}

} // namespace zorvo::mail::postfix
