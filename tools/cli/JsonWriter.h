// A small streaming JSON writer: objects, arrays, strings and numbers, with the commas placed.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

class CJsonWriter
{
public:
    explicit CJsonWriter(std::ostream& os) : m_os(os) {}

    void BeginObject() { Open('{'); }
    void EndObject() { Close('}'); }
    void BeginArray() { Open('['); }
    void EndArray() { Close(']'); }
    void Key(const std::string& key)
    {
        Separate();
        String(key);
        m_os << ':';
        m_afterKey = true;
    }
    void Value(const std::string& text)
    {
        Separate();
        String(text);
    }
    void Value(const char* text) { Value(std::string(text)); }
    void Value(double number)
    {
        Separate();
        m_os << number;
    }
    void Value(uint64_t number)
    {
        Separate();
        m_os << number;
    }
    void Value(bool flag)
    {
        Separate();
        m_os << (flag ? "true" : "false");
    }
    template <typename T>
    void Field(const std::string& key, const T& value)
    {
        Key(key);
        Value(value);
    }

private:
    void Open(char bracket)
    {
        Separate();
        m_os << bracket;
        m_first.push_back(true);
    }
    void Close(char bracket)
    {
        m_first.pop_back();
        m_os << bracket;
    }
    // A comma before every value of an object or array but the first; none after a key.
    void Separate()
    {
        if (m_afterKey) {
            m_afterKey = false;
            return;
        }
        if (!m_first.empty()) {
            if (!m_first.back())
                m_os << ',';
            m_first.back() = false;
        }
    }
    void String(const std::string& text)
    {
        m_os << '"';
        for (char c : text) {
            if (c == '"' || c == '\\')
                m_os << '\\' << c;
            else if (static_cast<unsigned char>(c) < 0x20)
                m_os << "\\u00" << "0123456789abcdef"[(c >> 4) & 0xF] << "0123456789abcdef"[c & 0xF];
            else
                m_os << c;
        }
        m_os << '"';
    }

    std::ostream& m_os;
    std::vector<bool> m_first;
    bool m_afterKey = false;
};
