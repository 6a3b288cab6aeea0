#include <nuvek/chains/ChainExpression.h>

#include <cctype>
#include <stdexcept>

namespace Nuvek {

namespace {

struct Token
{
    enum Kind
    {
        Word,
        Pipe,
        Open,
        Close,
        End
    };
    Kind kind;
    std::string text;
    std::size_t position;
};

std::vector<Token> tokenize(std::string const& text)
{
    std::vector<Token> tokens;
    std::size_t i = 0;
    while (i < text.size())
    {
        char const c = text[i];
        if (std::isspace(static_cast<unsigned char>(c)))
        {
            ++i;
            continue;
        }
        if (c == '|' || c == '(' || c == ')')
        {
            tokens.push_back(
                Token{c == '|' ? Token::Pipe : (c == '(' ? Token::Open : Token::Close), std::string(1, c), i});
            ++i;
            continue;
        }
        std::size_t const start = i;
        while (i < text.size() && !std::isspace(static_cast<unsigned char>(text[i])) && text[i] != '|' &&
               text[i] != '(' && text[i] != ')')
            ++i;
        tokens.push_back(Token{Token::Word, text.substr(start, i - start), start});
    }
    tokens.push_back(Token{Token::End, "", text.size()});
    return tokens;
}

class Parser
{
public:
    explicit Parser(std::string const& text) : tokens(tokenize(text)) {}

    ChainExpression parseAll()
    {
        ChainExpression chain = parseChain(false);
        if (peek().kind != Token::End)
            fail("unexpected '" + peek().text + "'");
        if (chain.stages.empty())
            fail("the chain is empty");
        return chain;
    }

private:
    ChainExpression parseChain(bool nested)
    {
        ChainExpression chain;
        if (nested && peek().kind == Token::Close)
            return chain;
        chain.stages.push_back(parseStage());
        while (peek().kind == Token::Pipe)
        {
            ++next;
            chain.stages.push_back(parseStage());
        }
        return chain;
    }

    Stage parseStage()
    {
        if (peek().kind != Token::Word)
            fail(peek().kind == Token::End ? "a filter name is missing at the end"
                                           : "expected a filter name, found '" + peek().text + "'");
        Stage stage;
        stage.name = tokens[next++].text;
        for (;;)
        {
            Token const& token = peek();
            if (token.kind == Token::Word)
            {
                stage.arguments.push_back(StageArgument{token.text, nullptr});
                ++next;
            }
            else if (token.kind == Token::Open)
            {
                ++next;
                auto sub = std::make_shared<ChainExpression>(parseChain(true));
                if (peek().kind != Token::Close)
                    fail("expected ')' to close the sub-chain");
                ++next;
                stage.arguments.push_back(StageArgument{"", sub});
            }
            else
                return stage;
        }
    }

    Token const& peek() const { return tokens[next]; }

    [[noreturn]] void fail(std::string const& what) const
    {
        throw std::runtime_error("Bad chain expression at character " + std::to_string(peek().position + 1) + ": " +
                                 what + ".");
    }

    std::vector<Token> tokens;
    std::size_t next = 0;
};

} // namespace

ChainExpression parseChainExpression(std::string const& text)
{
    return Parser(text).parseAll();
}

std::string toString(ChainExpression const& chain)
{
    std::string text;
    for (std::size_t i = 0; i < chain.stages.size(); ++i)
    {
        if (i > 0)
            text += " | ";
        text += chain.stages[i].name;
        for (StageArgument const& argument : chain.stages[i].arguments)
            text += " " + (argument.isChain() ? "(" + toString(*argument.chain) + ")" : argument.word);
    }
    return text;
}

} // namespace Nuvek
