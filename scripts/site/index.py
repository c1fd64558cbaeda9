"""The index of the search: one record for each symbol and for each section of a page, as JavaScript.

It is a script and no file of data, since a page that was opened from a disk may load nothing else.
"""

import html
import json
import re


def _text(body):
    return " ".join(html.unescape(re.sub(r"<[^>]*>", " ", body)).split())


def _sections(body):
    """Title, anchor and text of each part of a page that begins with a heading."""
    parts = re.split(r"<h[1-6](?: [^>]*)?>.*?</h[1-6]>", body, flags=re.S)
    heads = re.findall(r"<h[1-6]((?: [^>]*)?)>(.*?)</h[1-6]>", body, flags=re.S)
    for (attributes, title), text in zip(heads, parts[1:]):
        anchor = re.search(r'id="([^"]*)"', attributes)
        yield _text(title), anchor[1] if anchor else "", _text(text)


def write(pages, symbols):
    records = [{"t": name, "u": url, "p": pages[url.split("#")[0]].title, "b": ""}
               for name, url in sorted(symbols.items())]
    for name, page in sorted(pages.items()):
        if not page.searched:
            continue
        for title, anchor, text in _sections(page.body):
            records.append({"t": title, "u": f"{name}#{anchor}" if anchor else name,
                            "p": page.title, "b": text})
    lines = ",\n".join(json.dumps(record, ensure_ascii=False) for record in records)
    return f"const searchIndex = [\n{lines}\n];\n"
