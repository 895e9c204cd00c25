// CommonParsers: small grammars for files like master.cf: comments, empty lines, and the white space inside
// an entry that continues over several lines. Spirit Classic, without a skipper: every blank is matched here.
#pragma once

#include <boost/spirit/include/classic_chset.hpp>
#include <boost/spirit/include/classic_core.hpp>

namespace zorvo::parser {

namespace classic = boost::spirit::classic;

/// Tab, blank, carriage return.
extern const classic::chset<char> swsp_p;
/// Line feed.
extern const classic::chlit<char> lf_p;

/// "# to the end of the line"
struct comments_parser : classic::grammar<comments_parser> {
    template <class Scanner>
    struct definition {
        explicit definition(const comments_parser&) { start_ = classic::ch_p('#') >> *(~lf_p); }
        const classic::rule<Scanner>& start() const { return start_; }

    private:
        classic::rule<Scanner> start_;
    };
};
extern const comments_parser comments_p;

/// Blanks, or nothing.
struct empty_line_parser : classic::grammar<empty_line_parser> {
    template <class Scanner>
    struct definition {
        explicit definition(const empty_line_parser&) { start_ = *swsp_p; }
        const classic::rule<Scanner>& start() const { return start_; }

    private:
        classic::rule<Scanner> start_;
    };
};
extern const empty_line_parser empty_line_p;

/// "   # a comment, perhaps after blanks"
struct comments_line_parser : classic::grammar<comments_line_parser> {
    template <class Scanner>
    struct definition {
        explicit definition(const comments_line_parser&) { start_ = empty_line_p >> comments_p; }
        const classic::rule<Scanner>& start() const { return start_; }

    private:
        classic::rule<Scanner> start_;
    };
};
extern const comments_line_parser comments_line_p;

/// What may stand between two words of one entry: blanks, or the rest of this line, any comment and empty
/// lines, and the blanks that begin a continuation line. May match nothing.
struct continuous_spaces_parser : classic::grammar<continuous_spaces_parser> {
    template <class Scanner>
    struct definition {
        explicit definition(const continuous_spaces_parser&)
        {
            start_ =
                empty_line_p >> !comments_p >> !(lf_p >> *(empty_line_p >> !comments_p >> lf_p) >> +swsp_p);
        }
        const classic::rule<Scanner>& start() const { return start_; }

    private:
        classic::rule<Scanner> start_;
    };
};
extern const continuous_spaces_parser continuous_spaces_p;

} // namespace zorvo::parser
