-- Changes links for pandoc: links between the pages of docs/ lead to the pages of the book; "README.md" is the first page.
-- A link to a file outside docs/ becomes plain text.
local function target_of(target)
  if target:match("^%a+:") or target:match("^#") then return target end
  if target:match("^%.%./") then return nil end
  return (target:gsub("^README%.md", "index.md"):gsub("%.md$", ".html"):gsub("%.md#", ".html#"))
end

function Link(link)
  local target = target_of(link.target)
  if target == nil then return link.content end
  link.target = target
  return link
end

-- The title of a page is its first heading.
function Pandoc(document)
  for _, block in ipairs(document.blocks) do
    if block.t == "Header" then
      document.meta.pagetitle = pandoc.utils.stringify(block.content)
      break
    end
  end
  return document
end
