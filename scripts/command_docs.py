#!/usr/bin/env python3
"""command_docs.py <nrpc-host> [--check]: writes docs/commands.md and docs/commands.zh-CN.md.

Names, types and Chinese texts come from the library's descriptor, all else from command_docs.json
beside this file: one entry for each command, in the order of the descriptor's indexes. With --check
nothing is written; fails when a page is not what would be written.
"""
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
DATA = json.loads((ROOT / "scripts/command_docs.json").read_text(encoding="utf-8"))
ENGLISH, CHINESE = 0, 1

TYPES = {
    "Integer": ("Integer", "整数型"),
    "Text": ("Text", "文本型"),
    "ByteSet": ("ByteSet", "字节集"),
    "Logical": ("Logical", "逻辑型"),
    "SubroutinePointer": ("SubroutinePointer", "子程序指针"),
    "AnyType": ("Text or Integer", "文本型或整数型"),
    "none": ("none", "无"),
}
HEADER = (
    """# Commands

[中文](commands.zh-CN.md)

All commands of the library, by object. A program calls them by their Chinese names; the examples use the English
ones. A *handler* is the routine of yours that the library calls with a message address. Arguments marked
**out** are variables that receive a value; what they held before is freed. No command raises an error: its
result is all that it says.
""",
    """# 命令

[English](commands.md)

本支持库的全部命令，按对象排列。“处理函数”是程序中由本支持库调用的子程序，它的参数是消息地址。
标有**输出**的参数是用于接收结果的变量，其原有内容会被释放。命令不会报错，失败只体现在返回值上。
""")
LABELS = {
    "table": ("| Command | Name in programs | |\n|---|---|---|", "| 命令 | 英文名称 |\n|---|---|"),
    "args": ("| Argument | Type | |\n|---|---|---|", "| 参数 | 类型 | 说明 |\n|---|---|---|"),
    "optional": ("optional", "可省略"),
    "output": ("**out**", "**输出**"),
    "array": ("array", "数组"),
    "returns": ("**Result:** ", "**返回值**："),
    "fails": ("**Failure:** ", "**失败**："),
    "threads": ("**Threads:** ", "**线程**："),
    "note": ("**Note:** ", "**注意**："),
    "hidden": ("*Hidden from programs.*", "*隐藏命令。*"),
    "example": ("**Example:**", "**示例**："),
}


def label(name, language):
    return LABELS[name][language]


def title(command, language):
    names = [command["EnglishName"], command["Name"]]
    if not names[0]:                    # the spares share a name
        return f"{names[1]} {command['Index']}"
    return " ".join(names if language == ENGLISH else reversed(names))


def link(command, language):
    text = title(command, language)
    return f"[{text.split()[0]}](#{text.lower().replace(' ', '-')})"


def type_text(arg, language):
    words = [TYPES[arg["Type"]][language]]
    if arg["OutputArray"]:
        words[0] += (" " if language == ENGLISH else "") + label("array", language)
    if arg["Output"] or arg["OutputArray"]:
        words.append(label("output", language))
    if arg["Optional"]:
        words.append(label("optional", language))
    return (", " if language == ENGLISH else "，").join(words)


def example_text(lines, language, chinese_names):
    """Examples are written with English names; each word that is none of them is a mistake."""
    def word(match):
        return match[0] if language == ENGLISH else chinese_names[match[0]]
    return "\n".join(re.sub(r"[A-Za-z]+", word, line) for line in lines)


def section(command, language, chinese_names):
    entry = DATA["commands"][command["Index"]]
    what = entry["what"] if language == ENGLISH else command["Description"] or entry["zh"]
    lines = [f"### {title(command, language)}", "", what + ("。" if what[-1] not in ".。" else ""), ""]
    if command["Hidden"]:
        lines += [label("hidden", language), ""]
    if command["Args"]:
        lines.append(label("args", language))
        for arg, english in zip(command["Args"], entry["args"], strict=True):
            text = english if language == ENGLISH else arg["Description"]
            lines.append(f"| {arg['Name']} | {type_text(arg, language)} | {text} |")
        lines.append("")
    facts = [label("returns", language) + TYPES[command["ReturnType"]][language],
             label("fails", language) + entry["fails"][language],
             label("threads", language) + DATA["threads"][entry["threads"]][language]]
    if entry.get("note", ("", ""))[language]:
        facts.append(label("note", language) + entry["note"][language])
    lines += [f"- {fact}" for fact in facts] + [""]
    if "example" in entry:
        example = example_text(entry["example"], language, chinese_names)
        lines += [label("example", language), "", "```", example, "```", ""]
    return lines


def contents_row(command, language):
    what = re.split(r"[.:;] |[.:;]$", DATA["commands"][command["Index"]]["what"])[0]
    cells = [link(command, language)]
    cells += [command["Name"], what] if language == ENGLISH else [command["EnglishName"]]
    return f"| {' | '.join(cells)} |"


def page(library, language):
    chinese_names = {command["EnglishName"]: command["Name"]
                     for kind in library["Types"] for command in kind["Commands"]} | DATA["words"]
    name = ("EnglishName", "Name")[language]
    lines = [HEADER[language]]
    for kind in library["Types"]:
        lines += [f"**{kind[name]}**", "", label("table", language)]
        lines += [contents_row(command, language) for command in kind["Commands"]] + [""]
    for kind in library["Types"]:
        lines += [f"## {kind['EnglishName']} {kind['Name']}", ""]
        for command in kind["Commands"]:
            lines += section(command, language, chinese_names)
    return "\n".join(lines)


def main():
    described = subprocess.run([sys.argv[1], "describe", "--json"], check=True, stdout=subprocess.PIPE)
    library = json.loads(described.stdout)
    if len(DATA["commands"]) != library["CommandCount"]:
        sys.exit("command_docs.json does not have one entry for each command")
    behind = []
    for language, name in enumerate(("docs/commands.md", "docs/commands.zh-CN.md")):
        text = page(library, language)
        if "--check" not in sys.argv:
            (ROOT / name).write_text(text, encoding="utf-8")
        elif not (ROOT / name).exists() or (ROOT / name).read_text(encoding="utf-8") != text:
            behind.append(name)
    if behind:
        sys.exit(f"not up to date, run scripts/command_docs.py: {', '.join(behind)}")


if __name__ == "__main__":
    main()
