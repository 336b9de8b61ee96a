"""The documentation site: ``make docs`` makes it in build/docs, without a network."""

import sys
from pathlib import Path

import quorvane

HERE = Path(__file__).parent
sys.path.insert(0, str(HERE / "_extensions"))

project = "quorvane"
author = "The quorvane authors"
project_copyright = author
version = release = quorvane.__version__

extensions = [
    "sphinx.ext.autodoc",
    # numpydoc loses the signatures of compiled methods with Sphinx 9; this keeps them.
    "sphinx.ext.napoleon",
    "myst_parser",
    "sphinx_gallery.gen_gallery",
    "command_help",
    "llms_text",
    "mathml",
    "short_names",
]

# The sources of the gallery become pages in the folder `examples`.
exclude_patterns = ["gallery"]

# Pages that show a file of the root, where that is there: not all of it is in every copy.
exclude_patterns += [
    f"{name.lower()}.md"
    for name in ("CONTRIBUTING", "CHANGELOG")
    if not (HERE.parent / f"{name}.md").is_file()
]

# ---- what pages say ------------------------------------------------------------------------------

# Names in single backticks lead to what they name, where that is in the reference.
default_role = "py:obj"
nitpicky = True
nitpick_ignore_regex = [
    # A docstring names its own parameters in the same way.
    ("py:obj", r"[a-z_]\w*"),
    # What a parameter may be is said in words, and other libraries' pages are not here.
    ("py:class", r"(?!quorvane\b).*"),
    ("py:exc", r"(?!quorvane\b).*"),
]

myst_heading_anchors = 3
myst_links_external_new_tab = False

napoleon_google_docstring = False
napoleon_use_ivar = True
# Several names with one text stay together.
napoleon_use_param = False
napoleon_use_rtype = False

autodoc_member_order = "bysource"
# Docstrings say in words what a parameter may be; compiled methods have no annotations at all.
autodoc_typehints = "none"
python_maximum_signature_line_length = 80
toc_object_entries_show_parents = "hide"

html_math_renderer = "mathml"

# ---- the gallery ---------------------------------------------------------------------------------

sphinx_gallery_conf = {
    "examples_dirs": "gallery",
    "gallery_dirs": "examples",
    "within_subsection_order": "gallery_setting.in_reading_order",
    "reset_modules": ("gallery_setting.as_at_the_start",),
    "abort_on_example_error": True,
    "download_all_examples": False,
    "remove_config_comments": True,
    "show_signature": False,
    "write_computation_times": False,
    "min_reported_time": 1_000_000,
}

# ---- how it looks --------------------------------------------------------------------------------

html_theme = "pydata_sphinx_theme"
html_title = f"quorvane {release}"
html_static_path = ["_static"]
html_css_files = ["site.css"]
html_show_sphinx = False
html_sidebars = {"index": []}
html_context = {"default_mode": "auto"}
html_theme_options = {
    "logo": {"text": "quorvane"},
    "navbar_end": ["theme-switcher"],
    "secondary_sidebar_items": ["page-toc"],
    "show_toc_level": 2,
    "header_links_before_dropdown": 6,
    "navigation_with_keys": False,
    "footer_start": ["copyright"],
    "footer_end": [],
    "pygments_light_style": "tango",
    "pygments_dark_style": "github-dark",
}
