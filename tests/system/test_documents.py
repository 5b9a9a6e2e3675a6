"""The documents: what they point at is there, and what they show is right."""

import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENTS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")])


def name(path):
    return str(path.relative_to(ROOT))


def without_code(text):
    text = re.sub(r"^ *```.*?^ *```", "", text, flags=re.M | re.S)
    return re.sub(r"`[^`]*`", "", text)


def blocks(path, language):
    text = path.read_text(encoding="utf-8")
    found = re.findall(rf"^( *)```{language}\n(.*?)^\1```", text, re.M | re.S)
    return [re.sub(f"^{indent}", "", block, flags=re.M) for indent, block in found]


def anchors(path):
    """The anchors of a document's headings, as they are made of their text."""
    text = path.read_text(encoding="utf-8")
    headings = re.findall(r"^#+ (.*)$", text, re.M)
    plain = [re.sub(r"[^\w\- ]", "", heading.lower()) for heading in headings]
    return {heading.replace(" ", "-") for heading in plain}


@pytest.mark.parametrize("path", DOCUMENTS, ids=name)
def test_every_link_of_a_document_leads_somewhere(path):
    text = without_code(path.read_text(encoding="utf-8"))
    for target in re.findall(r"\]\(([^)]*)\)", text):
        if re.match("https?://", target):
            continue  # the world outside is not reached from a test
        file, _, anchor = target.partition("#")
        there = (path.parent / file).resolve() if file else path
        assert there.exists(), target
        if anchor:
            assert anchor in anchors(there), target


@pytest.mark.parametrize("path", DOCUMENTS, ids=name)
def test_every_document_is_found_from_the_readme(path):
    seen, left = set(), [ROOT / "README.md"]
    while left:
        document = left.pop()
        if document in seen or document.suffix != ".md":
            continue
        seen.add(document)
        text = without_code(document.read_text(encoding="utf-8"))
        left += [(document.parent / file).resolve()
                 for file in re.findall(r"\]\(([^):#]+)[^)]*\)", text)]
    assert path in seen


LAUNCH_FILES = [
    pytest.param(block, id=f"{name(path)}-{i}")
    for path in DOCUMENTS for i, block in enumerate(blocks(path, "yaml"))
    if re.search("^(vornnode|configure):", block, re.M)
]


@pytest.mark.parametrize("text", LAUNCH_FILES)
def test_a_launch_file_in_a_document_is_right_for_checker_and_launcher(text, machine,
                                                                       program):
    checked = subprocess.run(
        [program.with_name("vornctl"), "check", "--fail-on", "warning", "-"],
        input=text, encoding="utf-8", capture_output=True, check=False,
    )
    assert (checked.returncode, checked.stdout) == (0, "")
    # The programs are no part of the document; nothing is started without them.
    machine.start(text)
    assert not machine.has_ended


def test_there_are_launch_files_in_the_documents():
    assert len(LAUNCH_FILES) >= 2
