"""The HTML page that `vornctl report` writes."""

import html5lib

HIDDEN = "[hidden]"
# A name and a line that would be markup, drive a terminal or reorder text.
HOSTILE = "<script>alert(1)</script>\"'&\u202e\x1b]0;x\x07"


class Page:
    """A page that is valid HTML."""

    def __init__(self, text):
        self.text = text
        parser = html5lib.HTMLParser(strict=True, namespaceHTMLElements=False)
        self.root = parser.parse(text)

    def all(self, tag):
        """All elements of this kind, those in drawings included."""
        return [each for each in self.root.iter()
                if isinstance(each.tag, str) and each.tag.split("}")[-1] == tag]

    def section(self, identifier):
        """The section whose heading has this id."""
        for section in self.all("section"):
            if section.get("aria-labelledby") == identifier:
                return section
        raise AssertionError(f"no section {identifier}")

    def text_of(self, identifier):
        """The text of a section, with one space between words."""
        return " ".join("".join(self.section(identifier).itertext()).split())

    def rows(self, identifier):
        """The texts in the cells of a section's first table."""
        table = self.section(identifier).find(".//table")
        return [[" ".join("".join(cell.itertext()).split()) for cell in row]
                for row in table.iter("tr")]

    def titles(self, node):
        """The details of the bars and marks of a node in the timeline."""
        for row in self.all("g"):
            if row.get("class") == "row" and row[0].text == node:
                return [each.text for each in row[2].iter()
                        if each.tag.endswith("title")]
        raise AssertionError(f"no row {node}")

    @property
    def notices(self):
        """The reasons why parts are missing."""
        return [item.text for box in self.all("div") if box.get("class") == "notices"
                for item in box.iter("li")]
